// Reads profile and preferences files. Nothing in a file is trusted. Its bytes are checked first
// (size, UTF-8, no endless tag), so that the time the XML parser takes grows with the size alone; a
// document type ends the parse before an entity can be declared; and what an element may hold
// stands in one table of rules. Whatever is found wrong becomes a FileProblem, and the rest is
// used.

#include "vpn/Api/ProfileFile.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/XmlScope.h"
#include "vpn/Common/Utility/URL.h"

namespace {

using ConfigurationText::isBlank;
using ConfigurationText::nearest;
using ConfigurationText::oneLine;
using ConfigurationText::quoted;

// The formats nest three deep; this leaves room for a stranger's file to be told its mistakes.
constexpr std::size_t MaxDepth = 16;

// No element takes more than three; the rest is not worth a message each.
constexpr int MaxAttributes = 16;

// As much of an element's name as a message shows, in bytes.
constexpr std::size_t MaxElementLength = 80;

// Longest sentence of another module (the XML parser, an address) inside a message, in bytes.
constexpr std::size_t MaxSentenceLength = 400;

// Longest path in a message, in bytes: PATH_MAX of Linux.
constexpr std::size_t MaxPathLength = 4096;

std::string trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  const std::size_t end = text.find_last_not_of(" \t\r\n");
  return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

/// "; allowed here: a, b (did you mean a?)", each name between `open` and `close`.
std::string allowedText(const std::string& found, const std::vector<const char*>& candidates,
                        const std::string& open, const std::string& close) {
  if (candidates.empty()) {
    return "; none is allowed here";
  }
  std::string text = "; allowed here: ";
  for (const char* candidate : candidates) {
    text += (candidate == candidates.front() ? "" : ", ") + open + candidate + close;
  }
  const char* meant = nearest(found, candidates);
  return meant != nullptr ? text + " (did you mean " + open + meant + close + "?)" : text;
}

// ---- What an element may hold -----------------------------------------------------------------

enum class ElementKind { Root, Group, Preference, Host };

struct ElementRule {
  const char* name;
  ElementKind kind;
  std::vector<const char*> attributes;
  std::vector<const ElementRule*> children;
};

struct FormatRule {
  ElementRule root;
  bool PreferenceBase::Definition::*allows;  ///< which preferences may stand in the format
  const char* otherPlace;                    ///< where the others belong
};

// The rules are never freed: a thread may still be reading files while the process ends.

const FormatRule& profileFormat() {
  static const ElementRule& preference = *new ElementRule{
      "preference", ElementKind::Preference, {"name", "value", "user-controllable"}, {}};
  static const ElementRule& host =
      *new ElementRule{"host", ElementKind::Host, {"name", "address"}, {}};
  static const ElementRule& preferences =
      *new ElementRule{"preferences", ElementKind::Group, {}, {&preference}};
  static const ElementRule& hosts = *new ElementRule{"hosts", ElementKind::Group, {}, {&host}};
  static const FormatRule& format =
      *new FormatRule{{"profile", ElementKind::Root, {"version"}, {&preferences, &hosts}},
                      &PreferenceBase::Definition::inProfile,
                      "a preferences file"};
  return format;
}

const FormatRule& preferencesFormat() {
  static const ElementRule& preference =
      *new ElementRule{"preference", ElementKind::Preference, {"name", "value"}, {}};
  static const FormatRule& format =
      *new FormatRule{{"preferences", ElementKind::Root, {"version"}, {&preference}},
                      &PreferenceBase::Definition::inPreferences,
                      "a profile"};
  return format;
}

// ---- The parse --------------------------------------------------------------------------------

struct ParserContextDeleter {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

/// Reads one document. Used by one thread, once.
class DocumentReader {
 public:
  DocumentReader(const std::string& path, const FormatRule& format,
                 std::vector<FileProblem>& problems)
      : m_path(path), m_format(format), m_problems(problems) {}

  /// @return whether `result` holds what the document says.
  bool read(ProfileFile& result);

 private:
  struct Attribute {
    std::string name;
    std::string value;
  };
  using Attributes = std::vector<Attribute>;

  void parse(const std::string& contents);
  static xmlSAXHandler callbacks();
  template <class FunctionT>
  static void guarded(void* user, FunctionT function);
  static void onStart(void* user, const xmlChar* localName, const xmlChar* prefix,
                      const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                      int attributeCount, int defaultedCount, const xmlChar** attributes);
  static void onEnd(void* user, const xmlChar*, const xmlChar*, const xmlChar*);
  static void onText(void* user, const xmlChar* text, int length);
  static void onDocumentType(void* user, const xmlChar*, const xmlChar*, const xmlChar*);
  static void onEndOfDocument(void* user);
  static void onError(void* user, xmlErrorPtr error);

  void start(const std::string& name, const Attributes& attributes);
  void end();
  void text(const std::string& found);
  const ElementRule* findRule(const std::string& name) const;
  void reportUnknownElement(const std::string& name);
  Attributes knownAttributes(const ElementRule& rule, const Attributes& attributes);
  void readVersion(const Attributes& attributes);
  void readPreference(const Attributes& attributes);
  const PreferenceBase::Definition* findPreference(const std::string& name);
  bool isFirst(const PreferenceBase::Definition& definition);
  bool checkValue(const PreferenceBase::Definition& definition, const std::string& value);
  bool readUserControllable(const std::string& preference, const Attributes& attributes);
  void readHost(const Attributes& attributes);
  std::string findHostError(const std::string& name, const std::string& address) const;

  static const std::string* find(const Attributes& attributes, const char* name);
  unsigned int line() const;
  void report(unsigned int line, const std::string& text);
  void refuse(unsigned int line, const std::string& text);

  const std::string& m_path;
  const FormatRule& m_format;
  std::vector<FileProblem>& m_problems;
  std::size_t m_problemCount = 0;
  ProfileFile m_result;

  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> m_context;
  std::vector<const ElementRule*> m_open;  // the elements around the current place; null: unknown
  std::map<PreferenceId, unsigned int> m_preferenceLines;
  bool m_textReported = false;
  bool m_hostsFull = false;
  bool m_refused = false;
  bool m_hasEnded = false;         // the parser has come to the end of the document
  std::exception_ptr m_exception;  // thrown in a callback, which may not leave through libxml2
};

bool DocumentReader::read(ProfileFile& result) {
  std::string contents;
  const std::string error =
      ConfigurationText::readRegularFile(m_path, MaxConfigurationFileSize, contents);
  if (!error.empty()) {
    refuse(0, error);
    return false;
  }
  const ConfigurationText::ByteProblem problem = ConfigurationText::findByteProblem(contents);
  if (!problem.text.empty()) {
    refuse(problem.line, problem.text);
    return false;
  }
  parse(contents);
  if (m_exception) {
    std::rethrow_exception(m_exception);
  }
  if (!m_refused && !m_hasEnded) {
    throw std::bad_alloc();  // the only reason to stop that it may keep to itself
  }
  if (!m_refused && m_context->wellFormed == 0) {
    refuse(0, "is not well-formed XML");
  }
  if (m_refused) {
    return false;
  }
  result = std::move(m_result);
  return true;
}

void DocumentReader::parse(const std::string& contents) {
  const CXmlScope library;
  m_context.reset(xmlNewParserCtxt());
  if (m_context == nullptr) {
    throw std::bad_alloc();
  }
  *m_context->sax = callbacks();
  m_context->userData = this;
  // The bytes are known to be UTF-8, whatever the document says of itself.
  constexpr int options = XML_PARSE_NONET | XML_PARSE_IGNORE_ENC;
  // Without the callbacks that build one, there is no document to return.
  xmlCtxtReadMemory(m_context.get(), contents.data(), static_cast<int>(contents.size()), nullptr,
                    nullptr, options);
}

xmlSAXHandler DocumentReader::callbacks() {
  // Every callback that is not named stays null: no document tree is built, no entity is kept.
  xmlSAXHandler handler = {};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = onStart;
  handler.endElementNs = onEnd;
  handler.characters = onText;
  handler.cdataBlock = onText;
  handler.internalSubset = onDocumentType;
  handler.endDocument = onEndOfDocument;
  handler.serror = onError;
  return handler;
}

template <class FunctionT>
void DocumentReader::guarded(void* user, FunctionT function) {
  DocumentReader& reader = *static_cast<DocumentReader*>(user);
  if (reader.m_refused || reader.m_exception) {
    return;
  }
  try {
    function(reader);
  } catch (...) {
    reader.m_exception = std::current_exception();
    xmlStopParser(reader.m_context.get());
  }
}

std::string toText(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

std::string qualified(const xmlChar* prefix, const xmlChar* localName) {
  return prefix != nullptr ? toText(prefix) + ":" + toText(localName) : toText(localName);
}

/// An attribute's value. libxml2 leaves each ampersand as "&#38;" when it is told to replace no
/// entity; no other reference can be left.
std::string attributeValue(const xmlChar* begin, const xmlChar* end) {
  static constexpr std::string_view ampersand = "&#38;";
  std::string value(reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin));
  for (std::size_t i = value.find(ampersand); i != std::string::npos;
       i = value.find(ampersand, i + 1)) {
    value.replace(i, ampersand.size(), "&");
  }
  return value;
}

void DocumentReader::onStart(void* user, const xmlChar* localName, const xmlChar* prefix,
                             const xmlChar*, int namespaceCount, const xmlChar** namespaces,
                             int attributeCount, int, const xmlChar** attributes) {
  guarded(user, [&](DocumentReader& reader) {
    if (attributeCount > MaxAttributes || namespaceCount > MaxAttributes) {
      reader.refuse(reader.line(), "an element has more than " + std::to_string(MaxAttributes) +
                                       " attributes, the most that is allowed");
      return;
    }
    Attributes list;
    for (int i = 0; i < namespaceCount; ++i, namespaces += 2) {
      list.push_back({namespaces[0] != nullptr ? "xmlns:" + toText(namespaces[0]) : "xmlns",
                      toText(namespaces[1])});
    }
    for (int i = 0; i < attributeCount; ++i, attributes += 5) {
      list.push_back(
          {qualified(attributes[1], attributes[0]), attributeValue(attributes[3], attributes[4])});
    }
    reader.start(qualified(prefix, localName), list);
  });
}

void DocumentReader::onEnd(void* user, const xmlChar*, const xmlChar*, const xmlChar*) {
  guarded(user, [](DocumentReader& reader) { reader.end(); });
}

void DocumentReader::onText(void* user, const xmlChar* text, int length) {
  guarded(user, [&](DocumentReader& reader) {
    reader.text(std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)));
  });
}

void DocumentReader::onDocumentType(void* user, const xmlChar*, const xmlChar*, const xmlChar*) {
  guarded(user, [](DocumentReader& reader) {
    reader.refuse(reader.line(), "a document type (<!DOCTYPE ...>) is not allowed; remove it");
  });
}

void DocumentReader::onEndOfDocument(void* user) {
  static_cast<DocumentReader*>(user)->m_hasEnded = true;
}

void DocumentReader::onError(void* user, xmlErrorPtr error) {
  if (error->level < XML_ERR_ERROR) {
    return;
  }
  guarded(user, [&](DocumentReader& reader) {
    if (error->code == XML_ERR_NO_MEMORY) {
      throw std::bad_alloc();
    }
    std::string message = error->message != nullptr ? error->message : "syntax error";
    while (!message.empty() && message.back() == '\n') {
      message.pop_back();
    }
    reader.refuse(static_cast<unsigned int>(std::max(error->line, 0)),
                  "is not well-formed XML: " + oneLine(message, MaxSentenceLength));
  });
}

void DocumentReader::start(const std::string& name, const Attributes& attributes) {
  m_textReported = false;
  if (m_open.size() >= MaxDepth) {
    refuse(line(), "elements are nested more than " + std::to_string(MaxDepth) + " deep");
    return;
  }
  if (!m_open.empty() && m_open.back() == nullptr) {
    m_open.push_back(nullptr);
    return;
  }
  const ElementRule* rule = findRule(name);
  if (rule == nullptr) {
    reportUnknownElement(name);
    m_open.push_back(nullptr);
    return;
  }
  m_open.push_back(rule);
  const Attributes known = knownAttributes(*rule, attributes);
  if (rule->kind == ElementKind::Root) {
    readVersion(known);
  } else if (rule->kind == ElementKind::Preference) {
    readPreference(known);
  } else if (rule->kind == ElementKind::Host && known.size() == attributes.size()) {
    // With a misspelt address the name would take its place, and be another gateway.
    readHost(known);
  }
}

void DocumentReader::end() {
  m_open.pop_back();
  m_textReported = false;
}

void DocumentReader::text(const std::string& found) {
  if (m_textReported || isBlank(found) || m_open.empty() || m_open.back() == nullptr) {
    return;
  }
  m_textReported = true;
  report(line(), "text inside <" + std::string(m_open.back()->name) +
                     "> is ignored: " + quoted(trimmed(found)));
}

const ElementRule* DocumentReader::findRule(const std::string& name) const {
  if (m_open.empty()) {
    return name == m_format.root.name ? &m_format.root : nullptr;
  }
  for (const ElementRule* child : m_open.back()->children) {
    if (name == child->name) {
      return child;
    }
  }
  return nullptr;
}

void DocumentReader::reportUnknownElement(const std::string& name) {
  const std::string found = "<" + oneLine(name, MaxElementLength) + ">";
  if (m_open.empty()) {
    refuse(line(),
           "the outermost element is " + found + ", but must be <" + m_format.root.name + ">");
    return;
  }
  std::vector<const char*> allowed;
  for (const ElementRule* child : m_open.back()->children) {
    allowed.push_back(child->name);
  }
  report(line(), "unknown element " + found + " inside <" + m_open.back()->name + ">" +
                     allowedText(name, allowed, "<", ">"));
}

DocumentReader::Attributes DocumentReader::knownAttributes(const ElementRule& rule,
                                                           const Attributes& attributes) {
  Attributes known;
  for (const Attribute& attribute : attributes) {
    if (std::find(rule.attributes.begin(), rule.attributes.end(), attribute.name) !=
        rule.attributes.end()) {
      known.push_back(attribute);
    } else {
      report(line(), "unknown attribute " + quoted(attribute.name) + " of <" + rule.name + ">" +
                         allowedText(attribute.name, rule.attributes, "\"", "\""));
    }
  }
  return known;
}

void DocumentReader::readVersion(const Attributes& attributes) {
  const std::string* version = find(attributes, "version");
  const std::string root = m_format.root.name;
  if (version == nullptr) {
    report(line(), "<" + root + "> has no version; write <" + root + " version=\"1\">");
  } else if (*version != "1") {
    refuse(line(),
           "version " + quoted(*version) + " of <" + root + "> is not known, only \"1\" is");
  }
}

void DocumentReader::readPreference(const Attributes& attributes) {
  const std::string* name = find(attributes, "name");
  const std::string* value = find(attributes, "value");
  if (name == nullptr || value == nullptr) {
    report(line(), std::string("a <preference> without \"") + (name == nullptr ? "name" : "value") +
                       "\" is left out; write <preference name=\"...\" value=\"...\"/>");
    return;
  }
  const PreferenceBase::Definition* definition = findPreference(*name);
  if (definition != nullptr && checkValue(*definition, *value) && isFirst(*definition)) {
    const bool userControllable = readUserControllable(*name, attributes);
    m_result.preferences.set(Preference(definition->id, *value, userControllable));
  }
}

const PreferenceBase::Definition* DocumentReader::findPreference(const std::string& name) {
  const PreferenceBase::Definition* definition = PreferenceBase::find(name);
  if (definition != nullptr) {
    if (definition->*m_format.allows) {
      return definition;
    }
    report(line(), "the preference " + quoted(name) + " has no effect here, it belongs in " +
                       m_format.otherPlace);
    return nullptr;
  }
  std::size_t count = 0;
  const PreferenceBase::Definition* all = PreferenceBase::definitions(count);
  std::vector<const char*> allowed;
  for (std::size_t i = 0; i < count; ++i) {
    if (all[i].*m_format.allows) {
      allowed.push_back(all[i].name);
    }
  }
  report(line(), "unknown preference " + quoted(name) + allowedText(name, allowed, "\"", "\""));
  return nullptr;
}

bool DocumentReader::isFirst(const PreferenceBase::Definition& definition) {
  const auto [place, isNew] = m_preferenceLines.emplace(definition.id, line());
  if (!isNew) {
    report(line(), std::string("the preference \"") + definition.name +
                       "\" stands already in line " + std::to_string(place->second) +
                       "; the first one counts");
  }
  return isNew;
}

bool DocumentReader::checkValue(const PreferenceBase::Definition& definition,
                                const std::string& value) {
  const std::string error = PreferenceBase::findError(definition, value);
  if (error.empty()) {
    return true;
  }
  std::vector<const char*> words;
  for (const char* const* allowed = definition.words; *allowed != nullptr; ++allowed) {
    words.push_back(*allowed);
  }
  const char* meant = nearest(value, words);
  report(line(), "the value " + quoted(value) + " of " + definition.name + " " +
                     oneLine(error, MaxSentenceLength) +
                     (meant != nullptr ? std::string(" (did you mean \"") + meant + "\"?)" : ""));
  return definition.checkedByReader;
}

bool DocumentReader::readUserControllable(const std::string& preference,
                                          const Attributes& attributes) {
  const std::string* value = find(attributes, "user-controllable");
  if (value == nullptr || *value == "false") {
    return false;
  }
  if (*value != "true") {
    report(line(), "user-controllable=" + quoted(*value) + " of " + preference +
                       " must be \"true\" or \"false\"; it counts as \"false\"");
  }
  return *value == "true";
}

void DocumentReader::readHost(const Attributes& attributes) {
  const std::string* name = find(attributes, "name");
  const std::string* address = find(attributes, "address");
  const std::string error =
      findHostError(name != nullptr ? *name : "", address != nullptr ? *address : "");
  if (!error.empty()) {
    report(line(), error);
    return;
  }
  if (m_result.hosts.size() < MaxHostsPerFile) {
    m_result.hosts.push_back({*name, address != nullptr ? *address : "", line()});
  } else if (!m_hostsFull) {
    m_hostsFull = true;
    report(line(), "there are more than " + std::to_string(MaxHostsPerFile) +
                       " host entries; those from here on are left out");
  }
}

std::string DocumentReader::findHostError(const std::string& name,
                                          const std::string& address) const {
  if (isBlank(name)) {
    return "a <host> without a name is left out; write <host name=\"...\" address=\"...\"/>";
  }
  const std::string host = "the host entry " + quoted(name) + " is left out: ";
  if (name.size() > MaxHostNameLength) {
    return host + "its name is longer than " + std::to_string(MaxHostNameLength) + " bytes";
  }
  if (oneLine(name, MaxHostNameLength) != name) {
    return host + "its name has a character that cannot be shown";
  }
  const std::string& reached = isBlank(address) ? name : address;
  const std::string error = URL::findError(reached);
  if (error.empty() && !URL(reached).getHost().empty()) {
    return {};
  }
  const std::string reason = error.empty() ? "it names no host" : oneLine(error, MaxSentenceLength);
  return isBlank(address) ? host + "it has no address, and its name cannot stand for one: " + reason
                          : host + "its address " + quoted(address) + " cannot be used: " + reason;
}

const std::string* DocumentReader::find(const Attributes& attributes, const char* name) {
  for (const Attribute& attribute : attributes) {
    if (attribute.name == name) {
      return &attribute.value;
    }
  }
  return nullptr;
}

unsigned int DocumentReader::line() const {
  return static_cast<unsigned int>(std::max(xmlSAX2GetLineNumber(m_context.get()), 0));
}

void DocumentReader::report(unsigned int line, const std::string& text) {
  ++m_problemCount;
  if (m_problemCount < MaxProblemsPerFile) {
    m_problems.push_back({m_path, line, text});
  } else if (m_problemCount == MaxProblemsPerFile) {
    m_problems.push_back({m_path, line, "the problems from here on are not listed"});
  }
}

void DocumentReader::refuse(unsigned int line, const std::string& text) {
  m_refused = true;
  // Listed even when the file has had its share of messages: it says why all the rest is moot.
  m_problems.push_back({m_path, line, text + "; the whole file is skipped"});
  if (m_context != nullptr) {
    xmlStopParser(m_context.get());
  }
}

}  // namespace

std::string FileProblem::toString() const {
  const std::string place = oneLine(file, MaxPathLength);
  return line != 0 ? place + ":" + std::to_string(line) + ": " + text : place + ": " + text;
}

bool readProfileFile(const std::string& path, ProfileFile& profile,
                     std::vector<FileProblem>& problems) {
  return DocumentReader(path, profileFormat(), problems).read(profile);
}

bool readPreferencesFile(const std::string& path, PreferenceInfo& preferences,
                         std::vector<FileProblem>& problems) {
  ProfileFile file;
  if (!DocumentReader(path, preferencesFormat(), problems).read(file)) {
    return false;
  }
  preferences = std::move(file.preferences);
  return true;
}
