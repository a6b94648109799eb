// The structure of configuration files, and the words that tell an author of a mistake: what was
// found, what was probably meant, what is allowed, and what it costs.

#include "vpn/Api/ConfigurationFormat.h"

#include <algorithm>
#include <charconv>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/Preference.h"
#include "vpn/Common/IP/ProbeKind.h"
#include "vpn/Common/Utility/NearestName.h"
#include "vpn/include/StringUtils.h"

namespace {

using Form = ElementRule::Attribute::Form;
using ConfigurationText::oneLine;
using ConfigurationText::quoted;

// As much of an element's name as a message shows, in bytes.
constexpr std::size_t MaxElementLength = 80;

auto named(const auto& rules, const std::string& name) {
  const auto found =
      std::ranges::find_if(rules, [&](const auto& rule) { return rule.name == name; });
  return found != rules.end() ? &*found : nullptr;
}

ElementRule::Attribute preferenceName(ConfigurationKind kind) {
  ElementRule::Attribute rule{"name", true, {}};
  for (const PreferenceBase::Definition& preference : PreferenceBase::definitions()) {
    if (kind == ConfigurationKind::Profile ? preference.isForProfiles
                                           : preference.isForPreferences) {
      rule.words.emplace_back(preference.name);
    }
  }
  return rule;
}

ElementRule profileRule() {
  const ElementRule preference{"preference",
                               {preferenceName(ConfigurationKind::Profile),
                                {"value", true, {}},
                                {"user-controllable", false, {"true", "false"}}},
                               {}};
  const ElementRule host{"host",
                         {{"name", true, {}, Form::HostName},
                          {"address", false, {}},
                          {"probe", false, {ProbeKindNames.begin(), ProbeKindNames.end()}},
                          {"probe-port", false, {}, Form::Port}},
                         {}};
  return {"profile",
          {{"version", true, {"1"}}},
          {{"preferences", {}, {preference}}, {"hosts", {}, {host}}}};
}

ElementRule preferencesRule() {
  const ElementRule preference{
      "preference", {preferenceName(ConfigurationKind::Preferences), {"value", true, {}}}, {}};
  return {"preferences", {{"version", true, {"1"}}}, {preference}};
}

/// "; allowed here: a, b", each name between `open` and `close`, after the one that was meant.
std::string allowedText(const std::string& found, const std::vector<std::string>& candidates,
                        const std::string& open, const std::string& close) {
  if (candidates.empty()) {
    return "; none is allowed here";
  }
  std::string text = ConfigurationFormat::meantText(nearestName(found, candidates), open, close) +
                     "; allowed here: ";
  for (const std::string& candidate : candidates) {
    text += (&candidate == candidates.data() ? "" : ", ") + open + candidate + close;
  }
  return text;
}

std::vector<std::string> namesOf(const auto& rules) {
  std::vector<std::string> names;
  std::ranges::transform(rules, std::back_inserter(names),
                         [](const auto& rule) { return rule.name; });
  return names;
}

/// What a mistake in an attribute costs.
std::string consequence(const ElementRule& element, const ElementRule::Attribute* attribute) {
  // With a misspelt address the entry's name would be used instead, and be another headend.
  return element.name == "host"   ? "; the entry is left out"
         : attribute == nullptr   ? "; it is ignored"
         : !attribute->isRequired ? "; it counts as if it were not there"
                                  : "";
}

/// How an element is to be written.
std::string usageOf(const ElementRule& element) {
  std::string text = "<" + element.name;
  for (const ElementRule::Attribute& attribute : element.attributes) {
    const std::string value = attribute.words.size() == 1 ? attribute.words.front() : "...";
    text += attribute.isRequired || attribute.words.empty()
                ? " " + attribute.name + "=\"" + value + "\""
                : "";
  }
  return text + (element.children.empty() ? "/>" : ">");
}

std::string elementText(const std::string& name) {
  return "<" + oneLine(name, MaxElementLength) + ">";
}

}  // namespace

const ElementRule::Attribute* ElementRule::findAttribute(const std::string& attribute) const {
  return named(attributes, attribute);
}

const ElementRule* ElementRule::findChild(const std::string& child) const {
  return named(children, child);
}

const ElementRule& ConfigurationFormat::rootOf(ConfigurationKind kind) {
  static const ElementRule& profile = *new ElementRule(profileRule());
  static const ElementRule& preferences = *new ElementRule(preferencesRule());
  return kind == ConfigurationKind::Profile ? profile : preferences;
}

bool ConfigurationFormat::isAllowed(const ElementRule::Attribute& attribute,
                                    const std::string& value) {
  if (attribute.form == Form::Port) {
    return portOf(value) != 0;
  }
  if (attribute.form == Form::HostName) {
    return !CStringUtils::trimmed(value).empty() && oneLine(value, MaxHostNameLength) == value;
  }
  return attribute.words.empty() || std::ranges::count(attribute.words, value) != 0;
}

unsigned short ConfigurationFormat::portOf(const std::string& value) {
  unsigned short port = 0;
  const char* const end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, port);
  return error == std::errc() && stop == end ? port : static_cast<unsigned short>(0);
}

std::string ConfigurationFormat::meantText(const std::string* meant, const std::string& open,
                                           const std::string& close) {
  return meant != nullptr ? " (did you mean " + open + *meant + close + "?)" : "";
}

std::string ConfigurationFormat::unknownRoot(const std::string& name,
                                             const std::vector<std::string>& roots) {
  return "the outermost element is " + elementText(name) + allowedText(name, roots, "<", ">");
}

std::string ConfigurationFormat::unknownChild(const ElementRule& parent, const std::string& name) {
  return "unknown element " + elementText(name) + " inside <" + parent.name + "> is passed over" +
         (parent.findAttribute(name) != nullptr
              ? "; write it as an attribute, " + name + "=\"...\""
              : allowedText(name, namesOf(parent.children), "<", ">"));
}

std::string ConfigurationFormat::unknownAttribute(const ElementRule& element,
                                                  const std::string& name) {
  return "unknown attribute " + quoted(name) + " of <" + element.name + ">" +
         allowedText(name, namesOf(element.attributes), "\"", "\"") + consequence(element, nullptr);
}

std::string ConfigurationFormat::missingAttribute(const ElementRule& element,
                                                  const std::string& name) {
  // The outermost element is used without its version.
  return "a <" + element.name + "> without \"" + name + "\"" +
         (element.children.empty() ? " is left out" : "") + "; write " + usageOf(element);
}

std::string ConfigurationFormat::wrongValue(const ElementRule& element,
                                            const ElementRule::Attribute& attribute,
                                            const std::string& value) {
  return "the value " + quoted(value) + " of \"" + attribute.name + "\" of <" + element.name +
         "> " +
         (attribute.form == Form::HostName
              ? "must be 1 to 255 bytes of text that can be shown, not blanks alone"
          : attribute.form == Form::Port
              ? "must be a number from 1 to 65535"
              : "is not known" + allowedText(value, attribute.words, "\"", "\"")) +
         consequence(element, &attribute);
}

std::string ConfigurationFormat::wrongPreference(ConfigurationKind kind,
                                                 const ElementRule::Attribute& attribute,
                                                 const std::string& name) {
  if (PreferenceBase::find(name) != nullptr) {
    return "the preference " + quoted(name) + " has no effect here, it belongs in " +
           (kind == ConfigurationKind::Profile ? "a preferences file" : "a profile");
  }
  return "unknown preference " + quoted(name) + " is ignored" +
         allowedText(name, attribute.words, "\"", "\"");
}
