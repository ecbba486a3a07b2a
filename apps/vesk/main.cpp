#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <sstream>
#include <system_error>

#include "apps/vesk/commands.h"
#include "apps/vesk/output.h"
#include "apps/vesk/program.h"
#include "apps/vesk/signals.h"

namespace {

using namespace vesk::program;

constexpr const char* kAbout =
    "Vesk finds cameras and microphones, and records them into QuickTime movies without\n"
    "re-encoding. A recording survives a crash: at most its last two seconds are lost.";

constexpr const char* kExamples =
    "Examples:\n"
    "  vesk devices                          what is attached\n"
    "  vesk record lesson.mov                record until Ctrl-C\n"
    "  vesk record lesson.mov --duration 60  record a minute\n"
    "  vesk preview                          a camera live in a window\n"
    "  vesk snapshot photo.jpeg              take a photo\n"
    "  vesk --capture simulated record test.mov --duration 5\n"
    "  vesk recover lesson.mov               finish what a crash left\n"
    "  vesk doctor                           what keeps cameras from working\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong use, 3 no such device, 4 device busy or refused.\n"
    "\"vesk COMMAND --help\" tells more about a command.";

CLI::App* addControls(CLI::App& app, ControlsOptions& options) {
  using Action = ControlsOptions::Action;
  CLI::App* const command = app.add_subcommand("controls", "Read and set a camera's image, lens and motion controls");
  command->add_option("--camera", options.camera, "Index, path or a unique part of the name (default: the first)");
  command->require_subcommand(0, 1);
  const auto add = [&](const char* name, const char* about, Action action) {
    CLI::App* const added = command->add_subcommand(name, about);
    added->callback([&options, action] { options.action = action; });
    return added;
  };
  add("list", "Show all controls with their ranges (what \"controls\" alone does)", Action::kList);
  add("get", "Show one control", Action::kGet)->add_option("NAME", options.name)->required();
  CLI::App* const set = add("set", "Set a control", Action::kSet);
  set->add_option("NAME", options.name)->required();
  set->add_option("VALUE", options.value, "A number, on, off, default, or auto to leave it to the camera")->required();
  add("reset", "Set one control, or all, to the defaults", Action::kReset)->add_option("NAME", options.name);
  add("save", "Keep all settings in a file", Action::kSave)
      ->add_option("FILE", options.file, "A property list when the name ends in .plist, else JSON")
      ->required();
  add("load", "Apply kept settings to the camera they are of", Action::kLoad)
      ->add_option("FILE", options.file)
      ->required();
  CLI::App* const keep =
      add("keep", "Apply kept settings now and whenever their camera comes, until Ctrl-C", Action::kKeep);
  keep->add_option("FILE", options.file)->required();
  keep->footer("Cameras forget their settings when they are plugged out: run this as a service.");
  return command;
}

int parseAndRun(int argc, char** argv) {
  CLI::App app{kAbout, "vesk"};
  app.footer(kExamples);
  app.require_subcommand(1);
  app.set_version_flag("--version", "vesk " VESK_VERSION);

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
  devicesCommand->add_flag("--watch", devices.watch, "Stay and tell of devices that come and go, until Ctrl-C");

  FormatsOptions formats;
  CLI::App* const formatsCommand = app.add_subcommand("formats", "List what a camera and a microphone can deliver");
  formatsCommand->add_option("--camera", formats.camera, "Index, path or a unique part of the name");
  formatsCommand->add_option("--mic", formats.microphone, "Index, path or a unique part of the name");

  RecordOptions record;
  CLI::App* const recordCommand = app.add_subcommand("record", "Record a camera and a microphone into a movie");
  recordCommand->add_option("OUT", record.file, "The movie to make, usually NAME.mov")->required();
  recordCommand->add_option("--camera", record.camera, "Index, path or a unique part of the name (default: the first)");
  recordCommand->add_option("--mic", record.microphone, "The same for the microphone");
  recordCommand->add_flag("--no-audio", record.noAudio, "Record the picture alone");
  recordCommand->add_option("--format", record.format, "Picture format, for example avc1:1280x720, avc1 or 640x480");
  recordCommand->add_option("--sound", record.sound, "Sound format, for example pcm:48000:2, pcm or aac");
  recordCommand
      ->add_option("--duration", record.duration, "Seconds to record (default: until Ctrl-C or the footage ends)")
      ->check(CLI::Range(0.1, 1e7));
  recordCommand->add_flag("--force", record.force, "Replace OUT if it exists (only once the new movie is complete)");
  recordCommand->add_flag("--wait", record.wait,
                          "Wait for a camera that is not there, and for one that goes: it is recorded\n"
                          "into OUT-2 and so on when it comes back");
  recordCommand->footer(
      "While recording, the movie grows in a hidden folder beside OUT and can be read at any moment; at\n"
      "the end it is moved to OUT. What a crash leaves there, \"vesk recover OUT\" finds and finishes.");

  SnapshotOptions snapshot;
  CLI::App* const snapshotCommand = app.add_subcommand("snapshot", "Take one photo");
  snapshotCommand->add_option("OUT", snapshot.file, "The picture to make, usually NAME.jpeg")->required();
  snapshotCommand->add_option("--camera", snapshot.camera,
                              "Index, path or a unique part of the name (default: the first)");
  snapshotCommand->add_option("--format", snapshot.format,
                              "Picture format (default: the largest), for example dmb1:1280x720");
  snapshotCommand->add_option("--delay", snapshot.delay, "Seconds to give the camera before the photo (default: 0.5)")
      ->check(CLI::Range(0.0, 1e5));
  snapshotCommand->add_flag("--force", snapshot.force, "Replace OUT if it exists");

  PreviewOptions preview;
  CLI::App* const previewCommand = app.add_subcommand("preview", "Show a camera live in a window");
  previewCommand->add_option("--camera", preview.camera,
                             "Index, path or a unique part of the name (default: the first)");
  previewCommand->add_option("--mic", preview.microphone, "The same for the microphone that is metered and recorded");
  previewCommand->add_flag("--no-audio", preview.noAudio, "Leave microphones alone");
  previewCommand->add_option("--format", preview.format, "Picture format, for example avc1:1280x720, dmb1 or 640x480");
  previewCommand->add_option("--sound", preview.sound, "Sound format of recordings, for example pcm:48000:2 or aac");
  previewCommand->add_option("--duration", preview.duration, "Seconds to show (default: until q)")
      ->check(CLI::Range(0.1, 1e7));
  previewCommand->add_option("--screenshot", preview.screenshot, "At the end, the window's content as a PNG picture")
      ->type_name("OUT.png");
  previewCommand->add_option("--record", preview.record, "Record from the start")->type_name("OUT.mov");
  previewCommand->add_flag("--force", preview.force, "Replace OUT files that exist");
  previewCommand->footer(
      "Keys in the window: space takes a photo, r starts and ends a recording, m mirrors the picture\n"
      "(where the camera can), q or Esc quits. Photos and recordings go to the current folder, named by\n"
      "the time.");

  MeterOptions meter;
  CLI::App* const meterCommand = app.add_subcommand("meter", "Show the level of a microphone");
  meterCommand->add_option("--mic", meter.microphone, "Index, path or a unique part of the name (default: the first)");
  meterCommand->add_option("--duration", meter.duration, "Seconds to show (default: until Ctrl-C)")
      ->check(CLI::Range(0.1, 1e7));

  RecoverOptions recover;
  CLI::App* const recoverCommand = app.add_subcommand("recover", "Finish a movie that a crash left unfinished");
  recoverCommand
      ->add_option("FILE", recover.file,
                   "The unfinished movie, or the name it was to have: leftovers beside it are found")
      ->required();
  recoverCommand->footer("Nothing recorded is removed: a movie that is whole already is left as it is.");

  ControlsOptions controls;
  CLI::App* const controlsCommand = addControls(app, controls);

  NudgeOptions nudge;
  CLI::App* const nudgeCommand = app.add_subcommand("nudge", "Move a motorised camera head a little");
  nudgeCommand->add_option("DIRECTION", nudge.direction, "left, right, up, down, or reset: back to the middle")
      ->required()
      ->check(CLI::IsMember({"left", "right", "up", "down", "reset"}));
  nudgeCommand->add_option("--times", nudge.times, "How often (default: once)")->check(CLI::Range(1, 1000));
  nudgeCommand->add_option("--camera", nudge.camera,
                           "Index, path or a unique part of the name (default: the first that can be nudged)");

  InfoOptions info;
  CLI::App* const infoCommand = app.add_subcommand("info", "Tell what a camera says of itself");
  infoCommand->add_option("--camera", info.camera, "Index, path or a unique part of the name (default: the first)");

  CLI::App* const doctorCommand =
      app.add_subcommand("doctor", "Look for what keeps cameras and microphones from working");
  doctorCommand->footer("Changes nothing. Exit status: 0 all is well, 1 there are problems.");

  ResolutionsOptions resolutions;
  CLI::App* const resolutionsCommand = app.add_subcommand("resolutions", "Look a product up in a resolution catalogue");
  resolutionsCommand->add_option("FILE", resolutions.file, "The catalogue, an XML file")->required();
  resolutionsCommand->add_option("--product", resolutions.product, "Product number in hexadecimal digits")
      ->type_name("HEX")
      ->required();
  resolutionsCommand->add_option("--codec", resolutions.codec, "Only what is for this codec")->type_name("NAME");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream text;
      app.exit(error, text, text);
      writeResult(text.str());
      return kDone;
    }
    return report(Failure(kWrongUse, error.what() + std::string("."), "See \"vesk --help\"."), global);
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
  sayLine("vesk: the results could not be written to standard output: {}.", std::generic_category().message(missing));
  return status == kDone ? kFailed : status;
}

}  // namespace

int main(int argc, char** argv) {
  return run(argc, argv);
}
