#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <initializer_list>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include <vesk/version.h>

#include "apps/vesk/argument_text.h"
#include "apps/vesk/commands.h"
#include "apps/vesk/output.h"
#include "apps/vesk/program.h"
#include "apps/vesk/signals.h"

namespace {

using namespace vesk::program;

// In seconds.
constexpr double kShortestDuration = 0.1;
constexpr double kLongestDuration = 1e7;

constexpr const char* kAbout =
    "Vesk finds cameras and microphones, and records them into QuickTime movies without\n"
    "re-encoding. A recording survives a crash: at most its last two seconds are lost.";

constexpr const char* kSurroundings =
    "Environment:\n"
    "  VESK_CAPTURE             where cameras and microphones come from, when --capture does not say it\n"
    "  VESK_WRITE               buffered: movies go through the page cache on every file system\n"
    "  VESK_SIMULATED_SETUP     what simulated devices do from the start\n"
    "  VESK_SIMULATED_COMMANDS  a pipe with more of that, one command a line\n"
    "  VESK_SIMULATED_STATE     the file in which simulated cameras keep their controls\n"
    "\n"
    "Exit status:\n"
    "  0    done\n"
    "  1    failed\n"
    "  2    wrong use\n"
    "  3    no such device\n"
    "  4    device busy or refused\n"
    "  130  stopped by a signal before it was done\n"
    "\n"
    "\"vesk COMMAND --help\" and the manual page vesk-COMMAND(1) tell more about a command.";

struct Example {
  const char* line;
  const char* about;
};

std::string examplesText(std::initializer_list<Example> examples) {
  size_t width = 0;
  for (const Example& example : examples) width = std::max(width, std::string(example.line).size());
  std::string text = "Examples:";
  for (const Example& example : examples) {
    text += fmt::format("\n  vesk {}", example.line);
    if (*example.about) text += fmt::format("{:{}}  {}", "", width - std::string(example.line).size(), example.about);
  }
  return text;
}

/// Ends the help of a command: what is to be known beside its options, and how it is used.
void addFooter(CLI::App* command, const std::string& notes, std::initializer_list<Example> examples) {
  command->footer(notes.empty() ? examplesText(examples) : notes + "\n\n" + examplesText(examples));
}

CLI::Option* addCamera(CLI::App* command, std::string& camera, const char* otherwise = "the first") {
  return command
      ->add_option("--camera", camera,
                   fmt::format("Index, path, /dev node or a unique part of the name (default: {})", otherwise))
      ->type_name("CAMERA");
}

CLI::Option* addMicrophone(CLI::App* command, std::string& microphone, const char* otherwise) {
  return command
      ->add_option("--mic", microphone,
                   fmt::format("Index, path or a unique part of the name (default: {})", otherwise))
      ->type_name("MIC");
}

CLI::Option* addFormat(CLI::App* command, std::string& format, const char* otherwise) {
  return command
      ->add_option("--format", format,
                   fmt::format("Picture format: h264, mjpeg or raw, with a size or not, as h264:1280x720,\n"
                               "raw:640x480, 720p, 1080p, 4k; @25 sets the rate, which the camera must offer\n"
                               "(default: {}, at the nearest to 30 a second)",
                               otherwise))
      ->type_name("FORMAT");
}

CLI::Option* addSound(CLI::App* command, std::string& sound) {
  return command
      ->add_option("--sound", sound,
                   "Sound format, as pcm:48000:2 (rate and channels), pcm:44100, pcm or aac\n"
                   "(default: the first that the microphone offers)")
      ->type_name("FORMAT");
}

/// A length of time from `least` to kLongestDuration.
CLI::Option* addDuration(CLI::App* command, const char* name, const char* about, double least,
                         const std::function<void(double)>& take) {
  const auto read = [name, least, take](const std::string& text) {
    const auto seconds = readDuration(text);
    if (!seconds || *seconds < least || *seconds > kLongestDuration)
      throw CLI::ValidationError(
          fmt::format("{} cannot be \"{}\": write seconds or a time like 90, 1m30s or 2h, from {:g} s to {:.0f} days",
                      name, text, least, kLongestDuration / 86400));
    take(*seconds);
  };
  return command->add_option_function<std::string>(name, read, about)->type_name("TIME");
}

CLI::App* addControls(CLI::App& app, ControlsOptions& options) {
  using Action = ControlsOptions::Action;
  CLI::App* const command = app.add_subcommand("controls", "Read and set a camera's image, lens and motion controls");
  addCamera(command, options.camera);
  command->require_subcommand(0, 1);
  addFooter(command, "\"vesk controls ACTION --help\" tells more about an action.",
            {{"controls", "all controls with their ranges"},
             {"controls set brightness 20", "set one"},
             {"controls set exposure auto", "leave one to the camera"},
             {"controls save desk.json", "keep all settings"},
             {"controls load desk.json", "apply them again"}});
  const auto add = [&](const char* name, const char* about, Action action) {
    CLI::App* const added = command->add_subcommand(name, about);
    added->callback([&options, action] { options.action = action; });
    return added;
  };
  constexpr const char* kName = "The control, as \"vesk controls list\" names it";
  constexpr const char* kFile = "What \"vesk controls save\" has made";
  addFooter(
      add("list", "Show all controls with their ranges (what \"controls\" alone does)", Action::kList), "",
      {{"controls list", "of the first camera"}, {"--json controls list --camera 1", "of the second, for scripts"}});
  CLI::App* const get = add("get", "Show one control", Action::kGet);
  get->add_option("NAME", options.name, kName)->required()->type_name("");
  addFooter(get, "", {{"controls get zoom", "how far it is zoomed in"}});
  CLI::App* const set = add("set", "Set a control", Action::kSet);
  set->add_option("NAME", options.name, kName)->required()->type_name("");
  set->add_option("VALUE", options.value, "A number, on, off, default, or auto to leave it to the camera")
      ->required()
      ->type_name("");
  addFooter(set, "",
            {{"controls set brightness -20", "darker"},
             {"controls set autoExposure off", "hold the exposure"},
             {"controls set whiteBalance auto", "leave it to the camera"}});
  CLI::App* const reset = add("reset", "Set one control, or all, to the defaults", Action::kReset);
  reset->add_option("NAME", options.name, "The control (default: all of them)")->type_name("");
  addFooter(reset, "", {{"controls reset", "all"}, {"controls reset zoom", "one"}});
  CLI::App* const save = add("save", "Keep all settings in a file", Action::kSave);
  save->add_option("FILE", options.file, "A property list when the name ends in .plist, else JSON")
      ->required()
      ->type_name("");
  save->add_flag("--force", options.force, "Replace FILE if it exists");
  addFooter(save, "", {{"controls save desk.json", ""}, {"controls save desk.json --force", "once more"}});
  CLI::App* const load = add("load", "Apply kept settings to the camera they are of", Action::kLoad);
  load->add_option("FILE", options.file, kFile)->required()->type_name("");
  addFooter(load, "", {{"controls load desk.json", ""}, {"controls load desk.json --camera 1", "to another camera"}});
  CLI::App* const keep =
      add("keep", "Apply kept settings now and whenever their camera comes, until Ctrl-C", Action::kKeep);
  keep->add_option("FILE", options.file, kFile)->required()->type_name("");
  addFooter(keep, "Cameras forget their settings when they are unplugged: run this as a service.",
            {{"controls keep desk.json", ""}});
  return command;
}

/// "vesk record": the command that was being read when a word was wrong.
std::string commandOf(const CLI::App& app) {
  std::string name = app.get_name();
  for (const CLI::App* command : app.get_subcommands()) name += " " + commandOf(*command);
  return name;
}

int parseAndRun(int argc, char** argv) {
  CLI::App app{kAbout, "vesk"};
  app.footer(examplesText({{"devices", "what is attached"},
                           {"record lesson.mov", "record until Ctrl-C"},
                           {"record lesson.mov --duration 1m", "record a minute"},
                           {"preview", "a camera live in a window"},
                           {"snapshot photo.jpeg", "take a photo"},
                           {"--capture simulated record test.mov --duration 5", "without a camera, for a try"},
                           {"recover lesson.mov", "finish what a crash left"},
                           {"doctor", "what keeps cameras from working"}}) +
             "\n\n" + kSurroundings);
  app.require_subcommand(1);
  app.set_version_flag("--version", "vesk " VESK_VERSION_STRING);

  GlobalOptions global;
  app.add_option("--capture", global.capture,
                 "Where cameras and microphones come from: linux, the machine's own (default; also\n"
                 "VESK_CAPTURE), simulated, file:PATH, or several joined by +")
      ->type_name("SOURCE");
  app.add_option("--pace", global.pace,
                 "realtime (default), or fast: footage and simulated devices as fast as they go, with\n"
                 "the time stamps of real time")
      ->type_name("PACE")
      ->check(CLI::IsMember({"realtime", "fast"}));
  app.add_flag("--loop", global.loop, "Footage starts again at its end");
  app.add_flag("--json", global.json, "Results as JSON, one document or one object a line");
  app.add_flag("--verbose", global.verbose, "The library's routine lines too, on standard error");
  app.fallthrough();

  DevicesOptions devices;
  CLI::App* const devicesCommand = app.add_subcommand("devices", "List cameras and microphones");
  devicesCommand->add_flag("--watch", devices.watch, "Keep running and report devices as they come and go");
  addFooter(devicesCommand, "",
            {{"devices", "what is attached"}, {"devices --watch", "until Ctrl-C"}, {"--json devices", "for scripts"}});

  FormatsOptions formats;
  CLI::App* const formatsCommand = app.add_subcommand("formats", "List what a camera and a microphone can deliver");
  addCamera(formatsCommand, formats.camera);
  addMicrophone(formatsCommand, formats.microphone, "the camera's own, else the first");
  addFooter(formatsCommand, "", {{"formats", "of the first camera"}, {"formats --camera 1", "of the second"}});

  RecordOptions record;
  CLI::App* const recordCommand = app.add_subcommand("record", "Record a camera and a microphone into a movie");
  recordCommand->add_option("OUT", record.file, "The movie to make: NAME.mov or NAME.qt")->required()->type_name("");
  addCamera(recordCommand, record.camera);
  addMicrophone(recordCommand, record.microphone, "the camera's own, else the first");
  recordCommand->add_flag("--no-audio", record.noAudio, "Record the picture alone");
  addFormat(recordCommand, record.format, "h264, up to 1280x720");
  addSound(recordCommand, record.sound);
  addDuration(recordCommand, "--duration",
              "How long to record: 90, 1m30s or 2h (default: until Ctrl-C or the footage\nends)", kShortestDuration,
              [&](double seconds) { record.duration = seconds; });
  recordCommand->add_flag("--force", record.force, "Replace OUT if it exists (only once the new movie is complete)");
  recordCommand->add_flag("--wait", record.wait,
                          "Wait for a camera that is not there, and for one that goes: it is recorded\n"
                          "into OUT-2 and so on when it comes back");
  addFooter(recordCommand,
            "While recording, the movie grows in a hidden folder beside OUT and can be read at any moment; at\n"
            "the end it is moved to OUT. What a crash leaves there, \"vesk recover OUT\" finds and finishes.",
            {{"record lesson.mov", "until Ctrl-C"},
             {"record lesson.mov --duration 45m", "for three quarters of an hour"},
             {"record talk.mov --format 1080p --mic headset", "in full HD, with a microphone of choice"},
             {"record race.mov --format 720p@60", "at 60 pictures a second"},
             {"record bench.mov --no-audio --wait", "from the moment the camera is plugged in"},
             {"--capture simulated record test.mov --duration 5", "without a camera, for a try"}});

  SnapshotOptions snapshot;
  CLI::App* const snapshotCommand = app.add_subcommand("snapshot", "Take one photo");
  snapshotCommand->add_option("OUT", snapshot.file, "The photo to make: NAME.jpeg or NAME.jpg")
      ->required()
      ->type_name("");
  addCamera(snapshotCommand, snapshot.camera);
  addFormat(snapshotCommand, snapshot.format, "the largest");
  addDuration(snapshotCommand, "--delay", "How long to give the camera before the photo (default: 0.5 s)", 0,
              [&](double seconds) { snapshot.delay = seconds; });
  snapshotCommand->add_flag("--force", snapshot.force, "Replace OUT if it exists");
  addFooter(snapshotCommand, "",
            {{"snapshot photo.jpeg", "the largest picture there is"},
             {"snapshot photo.jpeg --delay 3s", "once the exposure has settled"},
             {"snapshot small.jpeg --format 640x480", ""}});

  PreviewOptions preview;
  CLI::App* const previewCommand = app.add_subcommand("preview", "Show a camera live in a window");
  addCamera(previewCommand, preview.camera);
  addMicrophone(previewCommand, preview.microphone, "the camera's own, else the first");
  previewCommand->add_flag("--no-audio", preview.noAudio, "Leave microphones alone");
  addFormat(previewCommand, preview.format, "h264, up to 1280x720");
  addSound(previewCommand, preview.sound);
  addDuration(previewCommand, "--duration", "How long to show it: 90, 1m30s or 2h (default: until q)",
              kShortestDuration, [&](double seconds) { preview.duration = seconds; });
  previewCommand->add_option("--screenshot", preview.screenshot, "At the end, the window's content as a PNG picture")
      ->type_name("OUT.png");
  previewCommand->add_option("--record", preview.record, "Record from the start")->type_name("OUT.mov");
  previewCommand->add_flag("--force", preview.force, "Replace OUT files that exist");
  addFooter(previewCommand,
            "Keys in the window: space takes a photo, r starts and ends a recording, m mirrors the picture\n"
            "(where the camera can), q or Esc quits. Photos and recordings go to the current folder, named by\n"
            "the time.",
            {{"preview", "until q"},
             {"preview --format mjpeg:720p", ""},
             {"preview --record lesson.mov", "recorded from the start"},
             {"preview --duration 5 --screenshot window.png", "what the window shows, for a test"}});

  MeterOptions meter;
  CLI::App* const meterCommand = app.add_subcommand("meter", "Show the level of a microphone");
  addMicrophone(meterCommand, meter.microphone, "the first");
  addDuration(meterCommand, "--duration", "How long to show it: 90, 1m30s or 2h (default: until Ctrl-C)",
              kShortestDuration, [&](double seconds) { meter.duration = seconds; });
  addFooter(meterCommand, "", {{"meter", "until Ctrl-C"}, {"meter --mic headset --duration 10", ""}});

  RecoverOptions recover;
  CLI::App* const recoverCommand = app.add_subcommand("recover", "Finish a movie that a crash left unfinished");
  recoverCommand
      ->add_option("FILE", recover.file,
                   "The unfinished movie, or the name it was to have: leftovers beside it are found")
      ->required()
      ->type_name("");
  addFooter(recoverCommand, "Nothing recorded is removed: a movie that is whole already is left as it is.",
            {{"recover lesson.mov", "finish what a crash left of it"}});

  ControlsOptions controls;
  CLI::App* const controlsCommand = addControls(app, controls);

  NudgeOptions nudge;
  CLI::App* const nudgeCommand = app.add_subcommand("nudge", "Move a motorised camera head a little");
  nudgeCommand->add_option("DIRECTION", nudge.direction, "left, right, up, down, or reset: back to the middle")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"left", "right", "up", "down", "reset"}));
  nudgeCommand->add_option("--times", nudge.times, "How often, 1 to 1000 (default: once)")
      ->type_name("N")
      ->check(CLI::Range(1, 1000).description(""));
  addCamera(nudgeCommand, nudge.camera, "the first that can be nudged");
  addFooter(nudgeCommand, "", {{"nudge left", "a little"}, {"nudge up --times 5", "further"}, {"nudge reset", "back"}});

  InfoOptions info;
  CLI::App* const infoCommand = app.add_subcommand("info", "Show what a camera says of itself");
  addCamera(infoCommand, info.camera);
  addFooter(infoCommand, "",
            {{"info", "of the first camera"}, {"--json info --camera 1", "of the second, for scripts"}});

  CLI::App* const doctorCommand =
      app.add_subcommand("doctor", "Look for what keeps cameras and microphones from working");
  addFooter(doctorCommand, "Changes nothing.\n\nExit status:\n  0  all is well\n  1  there are problems",
            {{"doctor", ""}, {"--json doctor", "for scripts"}});

  ResolutionsOptions resolutions;
  CLI::App* const resolutionsCommand = app.add_subcommand("resolutions", "Look a product up in a resolution catalogue");
  resolutionsCommand->add_option("FILE", resolutions.file, "The catalogue, an XML file")->required()->type_name("");
  resolutionsCommand->add_option("--product", resolutions.product, "Product number in hexadecimal digits")
      ->type_name("HEX")
      ->required();
  resolutionsCommand->add_option("--codec", resolutions.codec, "Only what is for this codec, as avc1 or dmb1")
      ->type_name("NAME");
  addFooter(resolutionsCommand, "", {{"resolutions cameras.xml --product 7B27", ""}});

  if (argc == 1) {
    writeResult(app.help());
    return kDone;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream text;
      app.exit(error, text, text);
      writeResult(text.str());
      return kDone;
    }
    const auto words = app.remaining();
    if (app.get_subcommands().empty() && !words.empty() && !words.front().starts_with('-'))
      return report(
          Failure(kWrongUse, fmt::format("there is no command \"{}\".", words.front()), "See \"vesk --help\"."),
          global);
    return report(
        Failure(kWrongUse, error.what() + std::string("."), fmt::format("See \"{} --help\".", commandOf(app))), global);
  }

  try {
    if (devicesCommand->parsed()) return runDevices(global, devices);
    if (formatsCommand->parsed()) return runFormats(global, formats);
    if (recordCommand->parsed()) return runRecord(global, record);
    if (controlsCommand->parsed()) return runControls(global, controls);
    if (doctorCommand->parsed()) return runDoctor(global);
    if (nudgeCommand->parsed()) return runNudge(global, nudge);
    if (infoCommand->parsed()) return runInfo(global, info);
    if (resolutionsCommand->parsed()) return runResolutions(global, resolutions);
    if (snapshotCommand->parsed()) return runSnapshot(global, snapshot);
    if (previewCommand->parsed()) return runPreview(global, preview);
    if (meterCommand->parsed()) return runMeter(global, meter);
    return runRecover(global, recover);
  } catch (const Failure& failure) {
    return report(failure, global);
  } catch (const std::bad_alloc&) {
    return report(Failure(kFailed, "there is not enough memory.", "Close other programs."), global);
  } catch (const std::exception& error) {
    return report(
        Failure(kFailed, fmt::format("{}.", error.what()), "This is a fault of the program; please report it."),
        global);
  } catch (...) {
    return report(Failure(kFailed, "something failed.", "This is a fault of the program; please report it."), global);
  }
}

/// Runs the command with the process in order: its streams, its signals, and results that came through.
int run(int argc, char** argv) {
  openMissingStreams();
  setUpSignals();
  const int status = parseAndRun(argc, argv);
  const int missing = missingResults();
  if (missing == 0) return status;
  reportLine("vesk: the results could not be written to standard output: {}.",
             std::generic_category().message(missing));
  return status == kDone ? kFailed : status;
}

}  // namespace

int main(int argc, char** argv) {
  return run(argc, argv);
}
