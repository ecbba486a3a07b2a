#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include <vesk/atomic_file.h>
#include <vesk/control_settings.h>
#include <vesk/property_list.h>
#include "platform/foundation/errors.h"

// Settings as text: JSON, or a property list of the same shape.

namespace vesk {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostBytes = size_t{1} << 20;

Json asJson(const ControlSettings& settings) {
  return {{"camera",
           {{"name", settings.cameraName},
            {"path", settings.cameraPath},
            {"vendorID", settings.vendorID},
            {"productID", settings.productID}}},
          {"controls", settings.values}};
}

std::string escaped(const std::string& text) {
  std::string answer;
  for (const char character : text) {
    if (character == '&')
      answer += "&amp;";
    else if (character == '<')
      answer += "&lt;";
    else if (character == '>')
      answer += "&gt;";
    else
      answer += character;
  }
  return answer;
}

/// A JSON document of objects, texts and whole numbers as a property list.
std::string asPropertyList(const Json& value, const std::string& indent) {
  if (value.is_string()) return fmt::format("{}<string>{}</string>\n", indent, escaped(value.get<std::string>()));
  if (value.is_number()) return fmt::format("{}<integer>{}</integer>\n", indent, value.get<int64_t>());
  std::string text = indent + "<dict>\n";
  for (const auto& [key, each] : value.items())
    text += fmt::format("{0}  <key>{1}</key>\n{2}", indent, escaped(key), asPropertyList(each, indent + "  "));
  return text + indent + "</dict>\n";
}

/// The same way back; what is neither a dictionary, a text nor a whole number becomes null.
Json asJson(const PropertyList& value) {
  if (const auto* const text = value.as<std::string>()) return *text;
  if (const auto* const number = value.as<int64_t>()) return *number;
  const auto* const dictionary = value.as<PropertyList::Dictionary>();
  if (!dictionary) return nullptr;
  Json object = Json::object();
  for (const auto& [key, each] : *dictionary) object[key] = asJson(each);
  return object;
}

bool isPropertyList(const std::string& path) {
  constexpr std::string_view kEnding = ".plist";
  return path.size() > kEnding.size() && path.compare(path.size() - kEnding.size(), kEnding.size(), kEnding) == 0;
}

/// None when the file cannot be read; `code` is errno then.
std::optional<std::string> contentOf(const std::string& path, int& code) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string content(kMostBytes + 1, '\0');
  if (file) file.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (!file.is_open() || (file.gcount() == 0 && errno != 0)) {
    code = errno == 0 ? EIO : errno;
    return std::nullopt;
  }
  content.resize(static_cast<size_t>(file.gcount()));
  return content;
}

Json parse(const std::string& content) {
  if (content.size() > kMostBytes) return nullptr;
  Json document = Json::parse(content, nullptr, false);
  if (!document.is_discarded()) return document;
  const auto list =
      PropertyList::dictionaryWithData({reinterpret_cast<const uint8_t*>(content.data()), content.size()});
  return list ? asJson(PropertyList(*list)) : Json(nullptr);
}

std::string textIn(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/// A number of a device record; none when it is not one.
std::optional<uint16_t> identifierIn(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer()) return std::nullopt;
  const auto number = found->get<int64_t>();
  if (number < 0 || number > std::numeric_limits<uint16_t>::max()) return std::nullopt;
  return static_cast<uint16_t>(number);
}

std::optional<ControlSettings> readSettings(const Json& document) {
  if (!document.is_object() || !document.contains("camera") || !document.contains("controls")) return std::nullopt;
  const Json& camera = document["camera"];
  const Json& controls = document["controls"];
  if (!camera.is_object() || !controls.is_object()) return std::nullopt;
  const auto vendorID = identifierIn(camera, "vendorID"), productID = identifierIn(camera, "productID");
  if (!vendorID || !productID) return std::nullopt;
  ControlSettings settings{textIn(camera, "name"), textIn(camera, "path"), *vendorID, *productID, {}};
  for (const auto& [name, value] : controls.items()) {
    if (!value.is_number_integer()) return std::nullopt;
    settings.values[name] = value.get<int64_t>();
  }
  return settings;
}

}  // namespace

Error saveControlSettings(const std::string& path, const ControlSettings& settings) {
  const Json document = asJson(settings);
  const std::string text = isPropertyList(path)
                               ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" +
                                     asPropertyList(document, "") + "</plist>\n"
                               : document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  NSError error;
  if (writeToFileAtomically(path, {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, &error)) return {};
  return errorOf(error);
}

std::optional<ControlSettings> loadControlSettings(const std::string& path, Error* why) {
  const auto fail = [&](Error error) {
    if (why) *why = std::move(error);
    return std::nullopt;
  };
  int code = 0;
  const auto content = contentOf(path, code);
  if (!content) {
    const Cause cause = fileCause(code);
    return fail({cause, fmt::format("\"{}\" cannot be read: {}", path, std::strerror(code)), fileRemedy(cause), path});
  }
  auto settings = readSettings(parse(*content));
  if (!settings)
    return fail({Cause::kUnreadable, fmt::format("\"{}\" holds no settings of a camera", path),
                 "Choose a file that settings of a camera were saved to.", path});
  if (why) *why = {};
  return settings;
}

}  // namespace vesk
