// Reads profile and preferences files, which are not trusted: their bytes are checked before the
// parser sees them, and each element is checked against the format as it comes. Whatever is wrong
// becomes a FileProblem, and the rest is used.

#include "vpn/Api/ProfileFile.h"

#include <set>
#include <utility>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/XmlDocument.h"
#include "vpn/Common/Utility/NearestName.h"
#include "vpn/include/StringUtils.h"

namespace {

using ConfigurationText::oneLine;
using ConfigurationText::quoted;

// Longest sentence of another module (the XML parser, an address) inside a message, in bytes.
constexpr std::size_t MaxSentenceLength = 400;

/// Reads one file. Used by one thread, once.
class FileReader : private XmlDocument {
 public:
  /// @param kind Unknown: whichever the outermost element names.
  FileReader(const std::string& path, ConfigurationKind kind, std::vector<FileProblem>& problems)
      : m_path(path), m_kind(kind), m_problems(problems) {}

  /// @return whether `result` holds what the file says.
  bool read(FileTrust::Check check, ProfileFile& result);

 private:
  void start(const std::string& name, const Attributes& attributes) override;
  void end() override;
  void text(const std::string& found) override;
  void refused(Place place, const std::string& reason) override;

  const ElementRule* findRule(const std::string& name);
  const ElementRule* findRoot(const std::string& name);
  std::string abandonHost();
  void checkAttributes(const ElementRule& rule, const Attributes& attributes);
  void reportWrong(const std::string& attribute, Place place, const std::string& text);

  void readPreference(const Attributes& attributes);
  bool isFirst(const PreferenceBase::Definition& definition);
  bool checkValue(const PreferenceBase::Definition& definition, const std::string& value);
  void readHost(const Attributes& attributes);
  void parseAddress(ProfileFile::Host& host);
  void takeHost(const ProfileFile::Host& host);
  void leaveOut(ProfileFile::Host host, const std::string& reason);
  void report(Place place, const std::string& text);

  const std::string& m_path;
  ConfigurationKind m_kind;
  std::vector<FileProblem>& m_problems;
  std::size_t m_problemCount = 0;
  ProfileFile m_result;
  std::string m_contents;
  std::vector<const ElementRule*> m_open;   // the elements around the current place; null: unknown
  std::set<std::string> m_wrong;            // attributes of the last tag that were reported
  std::optional<ProfileFile::Host> m_host;  // the open entry, as long as it has no mistake
  bool m_textReported = false;
  bool m_hostsFull = false;
};

bool FileReader::read(FileTrust::Check check, ProfileFile& result) {
  const std::string error =
      ConfigurationBytes::readRegularFile(m_path, MaxConfigurationFileSize, check, m_contents);
  if (!error.empty()) {
    refused({}, error);
    return false;
  }
  const ConfigurationBytes::ByteProblem problem = ConfigurationBytes::findByteProblem(m_contents);
  if (!problem.text.empty()) {
    refused(problem.place, problem.text);
    return false;
  }
  if (!XmlDocument::read(m_contents)) {
    return false;
  }
  result = std::move(m_result);
  return true;
}

void FileReader::start(const std::string& name, const Attributes& attributes) {
  m_textReported = false;
  m_wrong.clear();
  const ElementRule* rule = findRule(name);
  m_open.push_back(rule);
  if (rule == nullptr) {
    return;
  }
  checkAttributes(*rule, attributes);
  // The formats have an element of a name in one place.
  if (rule->name == "preference") {
    readPreference(attributes);
  } else if (rule->name == "host") {
    readHost(attributes);
  }
}

void FileReader::end() {
  if (m_open.back() != nullptr && m_host) {  // nothing that could be open within it is known
    takeHost(*m_host);
    m_host.reset();
  }
  m_open.pop_back();
  m_textReported = false;
}

void FileReader::text(const std::string& found) {
  if (m_textReported || CStringUtils::trimmed(found).empty() || m_open.empty() ||
      m_open.back() == nullptr) {
    return;
  }
  m_textReported = true;
  const std::string& element = m_open.back()->name;
  report(placeOfText(), "text inside <" + element +
                            "> is ignored: " + quoted(std::string(CStringUtils::trimmed(found))) +
                            (element == "host" ? abandonHost() : ""));
}

// Null for an unknown element, which is reported, and for elements inside it.
const ElementRule* FileReader::findRule(const std::string& name) {
  if (m_open.empty()) {
    return findRoot(name);
  }
  const ElementRule* const parent = m_open.back();
  if (parent == nullptr) {
    return nullptr;
  }
  const ElementRule* const rule = parent->findChild(name);
  if (rule == nullptr) {
    report(placeOfTag(), ConfigurationFormat::unknownChild(*parent, name) +
                             (parent->name == "host" ? abandonHost() : ""));
  }
  return rule;
}

const ElementRule* FileReader::findRoot(const std::string& name) {
  std::vector<std::string> allowed;
  for (const ConfigurationKind kind :
       {ConfigurationKind::Profile, ConfigurationKind::Preferences}) {
    const ElementRule& root = ConfigurationFormat::rootOf(kind);
    if (m_kind != kind && m_kind != ConfigurationKind::Unknown) {
      continue;
    }
    if (root.name == name) {
      m_kind = kind;
      return &root;
    }
    allowed.push_back(root.name);
  }
  refuse(placeOfTag(), ConfigurationFormat::unknownRoot(name, allowed));
  return nullptr;
}

void FileReader::checkAttributes(const ElementRule& rule, const Attributes& attributes) {
  for (const auto& [name, value] : attributes) {
    const ElementRule::Attribute* const allowed = rule.findAttribute(name);
    if (allowed == nullptr) {
      reportWrong(name, placeOf(name), ConfigurationFormat::unknownAttribute(rule, name));
    } else if (ConfigurationFormat::isAllowed(*allowed, value)) {
      continue;
    } else if (m_open.size() == 1) {
      // In another version the same words may mean other things.
      refuse(placeOf(name), ConfigurationFormat::wrongValue(rule, *allowed, value));
      return;
    } else {
      const bool isPreference = rule.name == "preference" && name == "name";
      reportWrong(name, placeOf(name),
                  isPreference ? ConfigurationFormat::wrongPreference(m_kind, *allowed, value)
                               : ConfigurationFormat::wrongValue(rule, *allowed, value));
    }
  }
  for (const ElementRule::Attribute& attribute : rule.attributes) {
    if (attribute.isRequired && find(attributes, attribute.name) == nullptr) {
      reportWrong(attribute.name, placeOfTag(),
                  ConfigurationFormat::missingAttribute(rule, attribute.name));
    }
  }
}

void FileReader::reportWrong(const std::string& attribute, Place place, const std::string& text) {
  m_wrong.insert(attribute);
  report(place, text);
}

void FileReader::readPreference(const Attributes& attributes) {
  if (m_wrong.contains("name") || m_wrong.contains("value")) {
    return;
  }
  const PreferenceBase::Definition* definition = PreferenceBase::find(valueOf(attributes, "name"));
  const std::string value = valueOf(attributes, "value");
  if (definition != nullptr && checkValue(*definition, value) && isFirst(*definition)) {
    const bool isUsers =
        !m_wrong.contains("user-controllable") &&
        valueOf(attributes, "user-controllable") == PreferenceBase::PreferenceEnabled;
    const Place here = placeOfTag();
    m_result.preferences.set(Preference(definition->id, value, isUsers, here.line, here.column));
  }
}

bool FileReader::isFirst(const PreferenceBase::Definition& definition) {
  Preference* first = nullptr;
  if (!m_result.preferences.getPreference(definition.id, first)) {
    return true;
  }
  report(placeOfTag(), std::string("the preference \"") + definition.name +
                           "\" is already in line " + std::to_string(first->getLine()) +
                           "; the first one counts");
  return false;
}

bool FileReader::checkValue(const PreferenceBase::Definition& definition,
                            const std::string& value) {
  const std::string error = PreferenceBase::findError(definition, value);
  if (error.empty()) {
    return true;
  }
  const std::string cost = definition.checkedByReader
                               ? std::string("it counts as \"") + definition.defaultValue + "\""
                               : "it is left out";
  report(placeOf("value"),
         "the value " + quoted(value) + " of " + definition.name +
             ConfigurationFormat::meantText(nearestName(value, definition.words), "\"", "\"") +
             " " + oneLine(error, MaxSentenceLength) + "; " + cost);
  return definition.checkedByReader;
}

void FileReader::readHost(const Attributes& attributes) {
  const Place here = placeOfTag();
  ProfileFile::Host host{valueOf(attributes, "name"), valueOf(attributes, "address"), here.line,
                         here.column};
  host.how.kind = probeKindOf(valueOf(attributes, "probe")).value_or(ProbeKind::Http);
  host.how.port = ConfigurationFormat::portOf(valueOf(attributes, "probe-port"));
  if (CStringUtils::trimmed(host.address).empty()) {
    host.address.clear();
  }
  if (!m_wrong.empty()) {
    leaveOut(host, "it has a mistake");
  } else {
    parseAddress(host);
  }
}

/// Opens the entry. It is taken at its end if it holds no mistake.
void FileReader::parseAddress(ProfileFile::Host& host) {
  const bool hasAddress = !host.address.empty();
  const std::string& reached = hasAddress ? host.address : host.name;
  host.url = URL(reached);
  if (!host.url.getHost().empty()) {
    m_host = host;
    return;
  }
  const std::string reason =
      (hasAddress ? "its address " + quoted(host.address) + " cannot be used: "
                  : "it has no address, and its name cannot stand for one: ") +
      oneLine(URL::findError(reached), MaxSentenceLength);
  report(placeOf(hasAddress ? "address" : "name"),
         "the host entry " + quoted(host.name) + " is left out: " + reason);
  leaveOut(host, reason);
}

/// Leaves the open entry out because of its content: if the address was written there, the name
/// would be used instead, and be another headend.
std::string FileReader::abandonHost() {
  if (m_host) {
    leaveOut(*m_host, "it has a mistake");
    m_host.reset();
  }
  return "; the entry is left out";
}

void FileReader::leaveOut(ProfileFile::Host host, const std::string& reason) {
  if (m_result.leftOut.size() < MaxProblemsPerFile) {
    host.reason = reason;
    m_result.leftOut.push_back(std::move(host));
  }
}

void FileReader::takeHost(const ProfileFile::Host& host) {
  if (m_result.hosts.size() < MaxHostsPerFile) {
    m_result.hosts.push_back(host);
  } else if (!m_hostsFull) {
    m_hostsFull = true;
    report({host.line, host.column}, "there are more than " + std::to_string(MaxHostsPerFile) +
                                         " host entries; those from here on are left out");
  }
}

void FileReader::report(Place place, const std::string& text) {
  ++m_problemCount;
  if (m_problemCount < MaxProblemsPerFile) {
    m_problems.push_back({m_path, place.line, place.column, text});
  } else if (m_problemCount == MaxProblemsPerFile) {
    m_problems.push_back(
        {m_path, place.line, place.column, "the problems from here on are not listed", true});
  }
}

// Listed even beyond the limit of messages: it says why all the rest does not matter.
void FileReader::refused(Place place, const std::string& reason) {
  m_problems.push_back({m_path, place.line, place.column, reason + "; the whole file is skipped"});
}

}  // namespace

std::string FileProblem::toString() const {
  const std::string place = oneLine(file);
  return line == 0
             ? place + ": " + text
             : place + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + text;
}

bool readConfigurationFile(const std::string& path, ConfigurationKind kind, ProfileFile& contents,
                           std::vector<FileProblem>& problems, FileTrust::Check check) {
  return FileReader(path, kind, problems).read(check, contents);
}
