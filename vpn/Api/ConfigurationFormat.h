#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Longest name of a host entry, in bytes.
constexpr std::size_t MaxHostNameLength = 255;

/// What a configuration file is, by its outermost element.
enum class ConfigurationKind { Unknown, Profile, Preferences };

/// What an element of a configuration file may hold.
struct ElementRule {
  struct Attribute {
    std::string name;
    bool isRequired = false;
    std::vector<std::string> words;  ///< the values allowed; empty where a list cannot say it
    enum class Form { Words, HostName, Port } form = Form::Words;  ///< of the value
  };
  std::string name;
  std::vector<Attribute> attributes;
  std::vector<ElementRule> children;

  /// Null if there is none of that name.
  /// @{
  const Attribute* findAttribute(const std::string& attribute) const;
  const ElementRule* findChild(const std::string& child) const;
  /// @}
};

/// The structure of the formats and the words in which a mistake in it is told. The schemas in
/// vpn/Api/schema, which are for editors, say the same. Any thread may call these.
namespace ConfigurationFormat {

/// The outermost element of a kind of file; never freed.
const ElementRule& rootOf(ConfigurationKind kind);

/// Whether a value may stand in an attribute, as far as its element does not matter.
bool isAllowed(const ElementRule::Attribute& attribute, const std::string& value);

/// The port of an attribute that is allowed; 0 for an empty text.
unsigned short portOf(const std::string& value);

/// " (did you mean a?)", `meant` between `open` and `close`; nothing for null.
std::string meantText(const std::string* meant, const std::string& open, const std::string& close);

/// What is wrong, what is allowed and what it costs, as a message without its place.
/// @{
std::string unknownRoot(const std::string& name, const std::vector<std::string>& roots);
std::string unknownChild(const ElementRule& parent, const std::string& name);
std::string unknownAttribute(const ElementRule& element, const std::string& name);
std::string missingAttribute(const ElementRule& element, const std::string& name);
std::string wrongValue(const ElementRule& element, const ElementRule::Attribute& attribute,
                       const std::string& value);
std::string wrongPreference(ConfigurationKind kind, const ElementRule::Attribute& attribute,
                            const std::string& name);
/// @}

}  // namespace ConfigurationFormat
