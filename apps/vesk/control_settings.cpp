#include "apps/vesk/control_settings.h"

#include <fmt/core.h>

#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <vesk/atomic_file.h>
#include <vesk/property_list.h>
#include "apps/vesk/program.h"

namespace vesk::program {
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

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content(kMostBytes + 1, '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<size_t>(file.gcount()));
  if (content.empty()) throw Failure(kFailed, fmt::format("\"{}\" cannot be read.", path), "Name a file of settings.");
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

void saveSettings(const std::string& path, const ControlSettings& settings) {
  const Json document = asJson(settings);
  const std::string text = isPropertyList(path)
                               ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" +
                                     asPropertyList(document, "") + "</plist>\n"
                               : document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  NSError error;
  if (!writeToFileAtomically(path, {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, &error))
    throw Failure(kFailed, fmt::format("the settings could not be written: {}.", error.description),
                  "Choose another place.");
}

ControlSettings loadSettings(const std::string& path) {
  const auto settings = readSettings(parse(contentOf(path)));
  if (!settings)
    throw Failure(kFailed, fmt::format("\"{}\" holds no settings of a camera.", path),
                  "Name a file that \"vesk controls save\" has made.");
  return *settings;
}

}  // namespace vesk::program
