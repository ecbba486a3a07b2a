#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/mutex.h"
#include "tests/support/temporary_folder.h"

namespace vesk::test {

/// A sound server that speaks just enough of PulseAudio's protocol to be connected to: it greets, and
/// acknowledges whatever is asked, or does not answer, or hangs up. Made before, and gone after, all that
/// connects to it: while it lives, clients of this process find it.
class FakeSoundServer {
 public:
  enum class Manner {
    kAcknowledges,
    kHangs,        ///< after it has greeted
    kHangsAtOnce,  ///< connections are taken, and that is all
    kHangsUp,      ///< as soon as it is asked anything
  };

  explicit FakeSoundServer(Manner manner) : mManner(manner) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = mFolder.file("native");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    mListener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool isListening =
        bind(mListener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(mListener, 16) == 0;
    if (!isListening) std::abort();
    setenv("PULSE_SERVER", ("unix:" + path).c_str(), 1);
    mThread = std::thread([this] { run(); });
  }
  ~FakeSoundServer() {
    eventfd_write(mStop, 1);
    mThread.join();
    unsetenv("PULSE_SERVER");
    for (const int client : mClients) close(client);
    close(mListener);
    close(mStop);
  }
  FakeSoundServer(const FakeSoundServer&) = delete;
  FakeSoundServer& operator=(const FakeSoundServer&) = delete;

  void behave(Manner manner) { mManner = manner; }
  /// How much it has been asked, greetings apart.
  int questions() const { return mQuestions; }
  /// Waits for the first of them: a client with little patience may have given up before it comes.
  void waitUntilAsked() const { mQuestions.wait(0); }

 private:
  // Of the protocol.
  static constexpr uint32_t kReply = 2, kAuthenticate = 8, kSetClientName = 9, kVersion = 16;
  static constexpr size_t kHeader = 20;

  void run() {
    while (true) {
      std::vector<pollfd> descriptors = {{mStop, POLLIN, 0}, {mListener, POLLIN, 0}};
      for (const int client : mClients) descriptors.push_back({client, POLLIN, 0});
      if (poll(descriptors.data(), descriptors.size(), -1) < 0) continue;
      if (descriptors[0].revents != 0) return;
      if (descriptors[1].revents != 0) mClients.push_back(accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC));
      for (size_t i = 2; i < descriptors.size(); ++i) {
        if (descriptors[i].revents == 0 || serve(descriptors[i].fd)) continue;
        close(descriptors[i].fd);
        std::erase(mClients, descriptors[i].fd);
      }
    }
  }

  /// One packet of the client's. @return false to hang up
  bool serve(int client) {
    std::array<uint8_t, kHeader> header{};
    if (recv(client, header.data(), header.size(), MSG_WAITALL) != static_cast<ssize_t>(header.size())) return false;
    std::vector<uint8_t> packet(number(header.data()));
    if (recv(client, packet.data(), packet.size(), MSG_WAITALL) != static_cast<ssize_t>(packet.size())) return false;
    if (packet.size() < 10) return false;
    const Manner manner = mManner;
    const uint32_t command = number(&packet[1]);
    const uint32_t tag = number(&packet[6]);
    if (manner == Manner::kHangsAtOnce) return true;
    if (command == kAuthenticate) return reply(client, {kReply, tag, kVersion});
    if (command == kSetClientName) return reply(client, {kReply, tag, 0});
    ++mQuestions;
    mQuestions.notify_all();
    if (manner == Manner::kHangsUp) return false;
    return manner == Manner::kHangs || reply(client, {kReply, tag});
  }

  static uint32_t number(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
  }
  static void append(std::vector<uint8_t>& bytes, uint32_t number) {
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(number >> shift));
  }
  static bool reply(int client, const std::vector<uint32_t>& numbers) {
    std::vector<uint8_t> bytes;
    append(bytes, static_cast<uint32_t>(numbers.size() * 5));
    append(bytes, UINT32_MAX);  // no channel: a command
    for (int i = 0; i < 3; ++i) append(bytes, 0);
    for (const uint32_t each : numbers) {
      bytes.push_back('L');
      append(bytes, each);
    }
    return send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  const TemporaryFolder mFolder;
  std::atomic<Manner> mManner;
  std::atomic<int> mQuestions{0};
  int mListener = -1;
  const int mStop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::vector<int> mClients;  // of the thread
  std::thread mThread;
};

}  // namespace vesk::test
