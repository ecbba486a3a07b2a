#include "capture/files/media_container.h"

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>

namespace vesk::capture {

namespace {

constexpr int kBufferBytes = 64 << 10;
/// Below this score a container was only guessed at.
constexpr int kLeastProbeScore = AVPROBE_SCORE_RETRY + 1;
constexpr const char* kRawFrameRate = "30";

struct RawFormat {
  std::string_view suffix;
  const char* demuxer;
};
/// Files without a container, known by their names.
constexpr RawFormat kRawFormats[] = {
    {".264", "h264"},   {".h264", "h264"}, {".mjpeg", "mjpeg"},
    {".mjpg", "mjpeg"}, {".aac", "aac"},   {".uyvy", "rawvideo"},
};

/// The demuxers that may open a file, which hold footage themselves. The others are libav's for text, for
/// lists and descriptions that lead to files, hosts and ports of the file's choosing, for pictures alone,
/// and for devices: they never get as far as the file's content.
constexpr const char* kDemuxers =
    "mov,matroska,avi,mpegts,mpeg,mpegvideo,flv,asf,ogg,mxf,nut,ivf,dv,rm,yuv4mpegpipe,wav,w64,aiff,caf,au,mp3,"
    "flac,amr,ac3,eac3,aac,h264,hevc,m4v,mjpeg,rawvideo";
/// No protocol has this name: a demuxer that asks for one is refused.
constexpr const char* kProtocols = "none";

/// Streams without a container: libav would count their times from guesses.
constexpr std::string_view kUntimedDemuxers[] = {"h264", "hevc", "mjpeg", "m4v", "mpegvideo", "aac"};

std::string lowerSuffix(const std::string& path) {
  std::string suffix = std::filesystem::path(path).extension().string();
  std::transform(suffix.begin(), suffix.end(), suffix.begin(), [](unsigned char c) { return std::tolower(c); });
  return suffix;
}

const RawFormat* rawFormat(const std::string& path) {
  const std::string suffix = lowerSuffix(path);
  for (const RawFormat& format : kRawFormats) {
    if (suffix == format.suffix) return &format;
  }
  return nullptr;
}

/// The first WxH in a file name: "street-320x240.uyvy" answers "320x240".
std::optional<std::string> sizeInName(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename().string();
  const auto isDigit = [&](size_t at) {
    return at < name.size() && std::isdigit(static_cast<unsigned char>(name[at]));
  };
  for (size_t cross = 1; cross < name.size(); ++cross) {
    if (name[cross] != 'x' || !isDigit(cross - 1) || !isDigit(cross + 1)) continue;
    size_t begin = cross;
    while (begin > 0 && isDigit(begin - 1)) --begin;
    size_t end = cross + 1;
    while (isDigit(end)) ++end;
    if (cross - begin <= 5 && end - cross - 1 <= 5) return name.substr(begin, end - begin);
  }
  return std::nullopt;
}

/// The lines that libav prints about odd footage would stand beside ours; a host that has chosen a
/// level of its own keeps it.
void quietLibav() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_QUIET);
  });
}

int refuseOtherFiles(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
  return AVERROR(EPERM);
}

}  // namespace

/// A place in the file, as libav reads from it.
struct MediaContainer::Cursor {
  std::shared_ptr<FileBlocks> file;
  int64_t position = 0;

  static int read(void* opaque, uint8_t* bytes, int count) {
    Cursor& cursor = *static_cast<Cursor*>(opaque);
    const int got = cursor.file->read(cursor.position, bytes, count);
    if (got < 0) return AVERROR(-got);
    if (got == 0) return AVERROR_EOF;
    cursor.position += got;
    return got;
  }

  static int64_t seek(void* opaque, int64_t offset, int whence) {
    Cursor& cursor = *static_cast<Cursor*>(opaque);
    if (whence & AVSEEK_SIZE) return cursor.file->size();
    int64_t base = 0;
    switch (whence & ~AVSEEK_FORCE) {
      case SEEK_CUR:
        base = cursor.position;
        break;
      case SEEK_END:
        base = cursor.file->size();
        break;
      default:
        break;
    }
    if (base < 0 || offset < -base || offset > INT64_MAX - base) return AVERROR(EINVAL);
    return cursor.position = base + offset;
  }
};

MediaContainer::MediaContainer() = default;

MediaContainer::~MediaContainer() {
  avformat_close_input(&mContext);
  if (mInput != nullptr) av_freep(&mInput->buffer);
  avio_context_free(&mInput);
}

std::unique_ptr<MediaContainer> MediaContainer::open(const std::string& path, std::shared_ptr<FileBlocks> file,
                                                     std::string& error) {
  quietLibav();
  std::unique_ptr<MediaContainer> container(new MediaContainer);
  container->mCursor = std::make_unique<Cursor>();
  container->mCursor->file = std::move(file);

  auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
  container->mInput = buffer == nullptr ? nullptr
                                        : avio_alloc_context(buffer, kBufferBytes, 0, container->mCursor.get(),
                                                             &Cursor::read, nullptr, &Cursor::seek);
  container->mContext = container->mInput == nullptr ? nullptr : avformat_alloc_context();
  if (container->mContext == nullptr) {
    if (container->mInput == nullptr) av_free(buffer);
    error = fmt::format("{}: out of memory", path);
    return nullptr;
  }
  AVFormatContext*& context = container->mContext;
  context->pb = container->mInput;
  context->flags |= AVFMT_FLAG_CUSTOM_IO;
  context->io_open = refuseOtherFiles;
  context->format_whitelist = av_strdup(kDemuxers);
  context->protocol_whitelist = av_strdup(kProtocols);
  if (context->format_whitelist == nullptr || context->protocol_whitelist == nullptr) {
    error = fmt::format("{}: out of memory", path);
    return nullptr;
  }

  AVDictionary* options = nullptr;
  const AVInputFormat* format = nullptr;
  if (const RawFormat* raw = rawFormat(path)) {
    format = av_find_input_format(raw->demuxer);
    if (std::string_view(raw->demuxer) == "rawvideo") {
      const auto size = sizeInName(path);
      if (!size) {
        error = fmt::format("{}: the name of raw pictures must say their size, for example street-320x240.uyvy", path);
        return nullptr;
      }
      av_dict_set(&options, "video_size", size->c_str(), 0);
      av_dict_set(&options, "pixel_format", "uyvy422", 0);
      av_dict_set(&options, "framerate", kRawFrameRate, 0);
    }
  }
  const int status = avformat_open_input(&context, path.c_str(), format, &options);
  av_dict_free(&options);
  // A demuxer that is not among those above is an invalid argument to libav.
  const bool isNoFootage =
      status == AVERROR_INVALIDDATA || status == AVERROR(EPERM) || (status == AVERROR(EINVAL) && format == nullptr);
  if (status < 0 && !isNoFootage) {
    error = fmt::format("{}: cannot be read: {}", path, avErrorText(status));
    return nullptr;
  }
  const bool guessed = status >= 0 && format == nullptr && context->probe_score < kLeastProbeScore;
  if (status < 0 || guessed) {
    error = fmt::format("{}: is no movie or sound file, or is damaged", path);
    return nullptr;
  }
  // Containers that announce their tracks only as they go have to be read into first.
  if ((context->ctx_flags & AVFMTCTX_NOHEADER) != 0 || context->nb_streams == 0) {
    if (avformat_find_stream_info(context, nullptr) < 0) {
      error = fmt::format("{}: is no movie or sound file, or is damaged", path);
      return nullptr;
    }
  }
  return container;
}

int MediaContainer::bestTrack(AVMediaType kind) const {
  int best = -1;
  int64_t bestScore = -1;
  for (unsigned index = 0; index < mContext->nb_streams; ++index) {
    const AVStream* stream = mContext->streams[index];
    const AVCodecParameters* parameters = stream->codecpar;
    if (parameters->codec_type != kind || parameters->codec_id == AV_CODEC_ID_NONE) continue;
    if (stream->disposition & (AV_DISPOSITION_ATTACHED_PIC | AV_DISPOSITION_TIMED_THUMBNAILS)) continue;
    const int64_t extent = kind == AVMEDIA_TYPE_VIDEO ? int64_t{parameters->width} * parameters->height
                                                      : int64_t{parameters->ch_layout.nb_channels};
    const int64_t score = (stream->disposition & AV_DISPOSITION_DEFAULT ? int64_t{1} << 62 : 0) +
                          std::clamp<int64_t>(extent, 0, int64_t{1} << 61);
    if (score <= bestScore) continue;
    best = static_cast<int>(index);
    bestScore = score;
  }
  return best;
}

bool MediaContainer::isUntimed() const {
  return std::find(std::begin(kUntimedDemuxers), std::end(kUntimedDemuxers),
                   std::string_view(mContext->iformat->name)) != std::end(kUntimedDemuxers);
}

bool MediaContainer::isMovie() const {
  return std::string_view(mContext->iformat->name).find("mov") != std::string_view::npos;
}

void MediaContainer::readOnly(int index) {
  for (unsigned other = 0; other < mContext->nb_streams; ++other) {
    mContext->streams[other]->discard = static_cast<int>(other) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  if (!isMovie()) return;
  // A movie's packets are whole frames with their times: nothing needs parsing or guessing.
  const AVCodecID codec = mContext->streams[index]->codecpar->codec_id;
  if (codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_AAC || codec == AV_CODEC_ID_PCM_S16LE) {
    mContext->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
  }
  mInput->direct = 1;
}

}  // namespace vesk::capture
