// Reads profile and preferences files. Nothing in a file is trusted. Its bytes are checked first
// (size, UTF-8, no endless tag), and the parse ends when the names in it become too many, so that
// the time the XML parser takes grows with the size alone; a document type ends it before an entity
// can be declared; and each element is put to the schema as it comes. Whatever is found wrong
// becomes a FileProblem, and the rest is used.

#include "vpn/Api/ProfileFile.h"

#include <libxml/parser.h>

#include <algorithm>
#include <array>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "vpn/Api/ConfigurationSchema.h"
#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/XmlProblem.h"
#include "vpn/Api/XmlScope.h"
#include "vpn/Common/Utility/NearestName.h"
#include "vpn/Common/Utility/URL.h"

namespace {

using ConfigurationText::isBlank;
using ConfigurationText::oneLine;
using ConfigurationText::quoted;

// The formats nest three deep; this leaves room for a stranger's file to be told its mistakes.
constexpr std::size_t MaxDepth = 16;

// No element takes more than three; the rest is not worth a message each.
constexpr int MaxAttributes = 16;

// Most names of elements, attributes and processing instructions in a file. libxml2 keeps each in a
// table whose look-ups grow with it; the formats have a dozen.
constexpr int MaxNames = 1000;

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

std::string meantText(const std::string* meant, const std::string& open, const std::string& close) {
  return meant != nullptr ? " (did you mean " + open + *meant + close + "?)" : "";
}

/// " (did you mean a?); allowed here: a, b", each name between `open` and `close`.
std::string allowedText(const std::string& found, const std::vector<std::string>& candidates,
                        const std::string& open, const std::string& close) {
  if (candidates.empty()) {
    return "; none is allowed here";
  }
  std::string text = meantText(nearestName(found, candidates), open, close) + "; allowed here: ";
  for (const std::string& candidate : candidates) {
    text += (&candidate == candidates.data() ? "" : ", ") + open + candidate + close;
  }
  return text;
}

std::vector<std::string> namesOf(const auto& rules) {
  std::vector<std::string> names;
  names.reserve(rules.size());
  for (const auto& rule : rules) {
    names.push_back(rule.name);
  }
  return names;
}

const ElementRule::Attribute* ruleOf(const ElementRule& rule, const std::string& name) {
  const auto found = std::find_if(rule.attributes.begin(), rule.attributes.end(),
                                  [&](const auto& attribute) { return attribute.name == name; });
  return found != rule.attributes.end() ? &*found : nullptr;
}

/// Whether a value of an element that the schema rejects is to blame for sure.
bool isSurelyWrong(const ElementRule::Attribute& allowed, const std::string& value) {
  return allowed.words.empty()
             ? !allowed.rule.empty() && isBlank(value)
             : std::find(allowed.words.begin(), allowed.words.end(), value) == allowed.words.end();
}

/// What a mistake in an attribute costs.
std::string consequence(const ElementRule& rule, const ElementRule::Attribute* attribute) {
  // With a misspelt address the name would take its place, and be another gateway.
  return rule.name == "host"      ? "; the entry is left out"
         : attribute == nullptr   ? "; it is ignored"
         : !attribute->isRequired ? "; it counts as if it were not there"
                                  : "";
}

/// How an element is to be written.
std::string usageOf(const ElementRule& rule) {
  std::string text = "<" + rule.name;
  for (const ElementRule::Attribute& attribute : rule.attributes) {
    const std::string value = attribute.words.size() == 1 ? attribute.words.front() : "...";
    text += attribute.isRequired || attribute.words.empty()
                ? " " + attribute.name + "=\"" + value + "\""
                : "";
  }
  return text + (rule.children.empty() ? "/>" : ">");
}

constexpr ConfigurationKind AnyKind = ConfigurationKind::Unknown;

struct KnownSchema {
  ConfigurationKind kind;
  const CConfigurationSchema* schema;
};

std::array<KnownSchema, 2> schemas() {
  return {{{ConfigurationKind::Profile, &CConfigurationSchema::profile()},
           {ConfigurationKind::Preferences, &CConfigurationSchema::preferences()}}};
}

const std::string* find(const std::vector<CSchemaValidator::Attribute>& attributes,
                        const std::string& name) {
  for (const CSchemaValidator::Attribute& attribute : attributes) {
    if (attribute.name == name) {
      return &attribute.value;
    }
  }
  return nullptr;
}

std::string valueOf(const std::vector<CSchemaValidator::Attribute>& attributes,
                    const std::string& name) {
  const std::string* value = find(attributes, name);
  return value != nullptr ? *value : std::string();
}

/// What speaks against a host entry that the schema allows: what a schema cannot say.
struct HostError {
  const char* attribute;
  std::string text;  ///< empty if there is none
};

HostError findHostError(const std::string& name, const std::string& address) {
  if (name.size() > MaxHostNameLength) {
    return {"name", "its name is longer than " + std::to_string(MaxHostNameLength) + " bytes"};
  }
  if (oneLine(name, MaxHostNameLength) != name) {
    return {"name", "its name has a character that cannot be shown"};
  }
  const std::string& reached = address.empty() ? name : address;
  const std::string error = URL::findError(reached);
  if (error.empty() && !URL(reached).getHost().empty()) {
    return {"", ""};
  }
  const std::string reason = error.empty() ? "it names no host" : oneLine(error, MaxSentenceLength);
  return address.empty()
             ? HostError{"name", "it has no address, and its name cannot stand for one: " + reason}
             : HostError{"address",
                         "its address " + quoted(address) + " cannot be used: " + reason};
}

// ---- The parse --------------------------------------------------------------------------------

struct ParserContextDeleter {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};

/// Reads one document. Used by one thread, once.
class DocumentReader {
 public:
  /// @param format Unknown: whichever the outermost element names.
  DocumentReader(const std::string& path, ConfigurationKind format, FileTrust::Check check,
                 std::vector<FileProblem>& problems)
      : m_path(path), m_format(format), m_check(check), m_problems(problems) {}

  /// @return whether `result` holds what the document says.
  bool read(ProfileFile& result);

  /// Known once the outermost element is.
  ConfigurationKind format() const { return m_format; }

 private:
  using Attribute = CSchemaValidator::Attribute;
  using Attributes = std::vector<Attribute>;
  using Place = ConfigurationText::Place;

  void parse();
  static xmlSAXHandler callbacks();
  template <class FunctionT>
  static void guarded(void* user, FunctionT function);
  static void onStart(void* user, const xmlChar* localName, const xmlChar* prefix,
                      const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                      int attributeCount, int defaultedCount, const xmlChar** attributes);
  static void onEnd(void* user, const xmlChar*, const xmlChar*, const xmlChar*);
  static void onText(void* user, const xmlChar* text, int length);
  static void onInstruction(void* user, const xmlChar*, const xmlChar*);
  static void onDocumentType(void* user, const xmlChar*, const xmlChar*, const xmlChar*);
  static void onEndOfDocument(void* user);
  static void onError(void* user, xmlErrorPtr error);

  bool hasTooManyNames();
  void start(const std::string& name, const Attributes& attributes);
  void end();
  void text(const std::string& found);
  const ElementRule* findRule(const std::string& name);
  const ElementRule* findRoot(const std::string& name);
  void reportUnknownElement(const std::string& name);
  std::string abandonHost();

  void explain(const ElementRule& rule, const Attributes& attributes);
  void explainMissing(const ElementRule& rule, const ElementRule::Attribute& missing);
  void explainValue(const ElementRule& rule, const ElementRule::Attribute& allowed,
                    const std::string& value);
  void explainPreferenceName(const std::vector<std::string>& allowed, const std::string& name);
  bool isWrong(const char* attribute) const { return m_wrong.contains(attribute); }

  void readPreference(const Attributes& attributes);
  bool isFirst(const PreferenceBase::Definition& definition);
  bool checkValue(const PreferenceBase::Definition& definition, const std::string& value);
  void readHost(const Attributes& attributes);
  void takeHost(const ProfileFile::Host& host);
  void leaveOut(const ProfileFile::Host& host, const std::string& reason);

  std::size_t offset() const;
  std::size_t offsetOfAttribute(const std::string& name) const;
  Place placeOf(const std::string& attribute);
  void report(Place place, const std::string& text);
  void refuse(Place place, const std::string& text);

  const std::string& m_path;
  ConfigurationKind m_format;
  const FileTrust::Check m_check;
  std::vector<FileProblem>& m_problems;
  std::size_t m_problemCount = 0;
  ProfileFile m_result;

  std::string m_contents;
  std::optional<ConfigurationText::PlaceFinder> m_places;  // in the contents
  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> m_context;
  std::optional<CSchemaValidator> m_validator;  // from the outermost element on
  std::vector<const ElementRule*> m_open;  // the elements around the current place; null: unknown
  std::size_t m_tag = 0;                   // where the last tag begins
  std::set<std::string> m_wrong;           // attributes of the last tag that were reported
  std::map<PreferenceId, unsigned int> m_preferenceLines;
  std::optional<ProfileFile::Host> m_host;  // the open entry, as long as it has no mistake
  bool m_textReported = false;
  bool m_hostsFull = false;
  bool m_refused = false;
  bool m_hasEnded = false;         // the parser has come to the end of the document
  std::exception_ptr m_exception;  // thrown in a callback, which may not leave through libxml2
};

bool DocumentReader::read(ProfileFile& result) {
  const std::string error =
      ConfigurationText::readRegularFile(m_path, MaxConfigurationFileSize, m_check, m_contents);
  if (!error.empty()) {
    refuse({}, error);
    return false;
  }
  const ConfigurationText::ByteProblem problem = ConfigurationText::findByteProblem(m_contents);
  if (!problem.text.empty()) {
    refuse(problem.place, problem.text);
    return false;
  }
  m_places.emplace(m_contents);
  const CXmlScope library;
  parse();
  m_validator.reset();
  if (m_exception) {
    std::rethrow_exception(m_exception);
  }
  if (!m_refused && !m_hasEnded) {
    throw std::bad_alloc();  // the only reason to stop that it may keep to itself
  }
  if (!m_refused && m_context->wellFormed == 0) {
    refuse({}, "is not well-formed XML");
  }
  m_context.reset();
  if (m_refused) {
    return false;
  }
  result = std::move(m_result);
  return true;
}

void DocumentReader::parse() {
  m_context.reset(xmlNewParserCtxt());
  if (m_context == nullptr) {
    throw std::bad_alloc();
  }
  *m_context->sax = callbacks();
  m_context->userData = this;
  // The bytes are known to be UTF-8, whatever the document says of itself.
  constexpr int options = XML_PARSE_NONET | XML_PARSE_IGNORE_ENC;
  // Without the callbacks that build one, there is no document to return.
  xmlCtxtReadMemory(m_context.get(), m_contents.data(), static_cast<int>(m_contents.size()),
                    nullptr, nullptr, options);
}

xmlSAXHandler DocumentReader::callbacks() {
  // Every callback that is not named stays null: no document tree is built, no entity is kept.
  xmlSAXHandler handler = {};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = onStart;
  handler.endElementNs = onEnd;
  handler.characters = onText;
  handler.cdataBlock = onText;
  handler.processingInstruction = onInstruction;
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
    // A "<" stands nowhere in a tag but at its beginning.
    reader.m_tag = reader.m_contents.rfind('<', reader.offset());
    if (reader.hasTooManyNames()) {
      return;
    }
    if (attributeCount > MaxAttributes || namespaceCount > MaxAttributes) {
      reader.refuse(reader.placeOf(""), "an element has more than " +
                                            std::to_string(MaxAttributes) +
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

void DocumentReader::onInstruction(void* user, const xmlChar*, const xmlChar*) {
  guarded(user, [](DocumentReader& reader) {
    reader.m_tag = reader.m_contents.rfind("<?", reader.offset());
    static_cast<void>(reader.hasTooManyNames());
  });
}

void DocumentReader::onDocumentType(void* user, const xmlChar*, const xmlChar*, const xmlChar*) {
  guarded(user, [](DocumentReader& reader) {
    reader.refuse(reader.m_places->placeOf(reader.m_contents.rfind("<!DOCTYPE", reader.offset())),
                  "a document type (<!DOCTYPE ...>) is not allowed; remove it");
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
    reader.refuse(reader.m_places->placeOf(reader.offset()), xmlProblem(*error));
  });
}

bool DocumentReader::hasTooManyNames() {
  if (xmlDictSize(m_context->dict) <= MaxNames) {
    return false;
  }
  refuse(placeOf(""),
         "there are more than " + std::to_string(MaxNames) +
             " different names of elements, attributes and <? ?> in it, the most that is allowed");
  return true;
}

void DocumentReader::start(const std::string& name, const Attributes& attributes) {
  m_textReported = false;
  m_wrong.clear();
  if (m_open.size() >= MaxDepth) {
    refuse(placeOf(""), "elements are nested more than " + std::to_string(MaxDepth) + " deep");
    return;
  }
  const bool isKnown = m_open.empty() || m_open.back() != nullptr;
  const ElementRule* rule = isKnown ? findRule(name) : nullptr;
  if (isKnown && rule == nullptr) {
    reportUnknownElement(name);
  }
  m_open.push_back(rule);
  if (rule == nullptr || m_refused) {
    return;
  }
  if (!m_validator->start(*rule, attributes)) {
    explain(*rule, attributes);
  }
  // The schema has an element of a name in one place.
  if (rule->name == "preference") {
    readPreference(attributes);
  } else if (rule->name == "host") {
    readHost(attributes);
  }
}

void DocumentReader::end() {
  if (m_open.back() != nullptr) {
    m_validator->end(*m_open.back());
    if (m_host) {  // nothing that could be open within it is known
      takeHost(*m_host);
      m_host.reset();
    }
  }
  m_open.pop_back();
  m_textReported = false;
}

void DocumentReader::text(const std::string& found) {
  if (m_textReported || isBlank(found) || m_open.empty() || m_open.back() == nullptr ||
      m_validator->text(found)) {
    return;
  }
  m_textReported = true;
  const std::size_t end = offset();
  const std::size_t tag = m_contents.rfind('>', end - 1);
  std::size_t begin = m_contents.find_first_not_of(" \t\r\n", tag + 1);
  if (begin >= end) {  // the text is a <![CDATA[...]]>
    begin = m_contents.rfind('<', end - 1);
  }
  const std::string& element = m_open.back()->name;
  report(m_places->placeOf(begin), "text inside <" + element +
                                       "> is ignored: " + quoted(trimmed(found)) +
                                       (element == "host" ? abandonHost() : ""));
}

const ElementRule* DocumentReader::findRule(const std::string& name) {
  if (m_open.empty()) {
    return findRoot(name);
  }
  for (const ElementRule& child : m_open.back()->children) {
    if (name == child.name) {
      return &child;
    }
  }
  return nullptr;
}

const ElementRule* DocumentReader::findRoot(const std::string& name) {
  for (const auto& [kind, schema] : schemas()) {
    if (schema->root().name == name && (m_format == kind || m_format == AnyKind)) {
      m_format = kind;
      m_validator.emplace(*schema);
      return &schema->root();
    }
  }
  return nullptr;
}

void DocumentReader::reportUnknownElement(const std::string& name) {
  const std::string found = "<" + oneLine(name, MaxElementLength) + ">";
  if (!m_open.empty()) {
    const ElementRule& parent = *m_open.back();
    const bool isAttribute = ruleOf(parent, name) != nullptr;
    report(placeOf(""), "unknown element " + found + " inside <" + parent.name +
                            "> is passed over" +
                            (isAttribute ? "; write it as an attribute, " + name + "=\"...\""
                                         : allowedText(name, namesOf(parent.children), "<", ">")) +
                            (parent.name == "host" ? abandonHost() : ""));
    return;
  }
  std::vector<std::string> allowed;
  for (const auto& [kind, schema] : schemas()) {
    if (m_format == kind || m_format == AnyKind) {
      allowed.push_back(schema->root().name);
    }
  }
  refuse(placeOf(""), "the outermost element is " + found + allowedText(name, allowed, "<", ">"));
}

// ---- What the schema has rejected -------------------------------------------------------------

void DocumentReader::explain(const ElementRule& rule, const Attributes& attributes) {
  for (const Attribute& attribute : attributes) {
    const ElementRule::Attribute* allowed = ruleOf(rule, attribute.name);
    if (allowed == nullptr) {
      m_wrong.insert(attribute.name);
      report(placeOf(attribute.name),
             "unknown attribute " + quoted(attribute.name) + " of <" + rule.name + ">" +
                 allowedText(attribute.name, namesOf(rule.attributes), "\"", "\"") +
                 consequence(rule, nullptr));
    } else if (isSurelyWrong(*allowed, attribute.value)) {
      explainValue(rule, *allowed, attribute.value);
    }
  }
  for (const ElementRule::Attribute& attribute : rule.attributes) {
    if (attribute.isRequired && find(attributes, attribute.name) == nullptr) {
      explainMissing(rule, attribute);
    }
  }
  // Whatever else the schema has against it, it is a value that no list of words can describe.
  for (const Attribute& attribute : attributes) {
    const ElementRule::Attribute* allowed = ruleOf(rule, attribute.name);
    if (m_wrong.empty() && allowed != nullptr && !allowed->rule.empty()) {
      explainValue(rule, *allowed, attribute.value);
    }
  }
}

void DocumentReader::explainMissing(const ElementRule& rule,
                                    const ElementRule::Attribute& missing) {
  m_wrong.insert(missing.name);
  // The outermost element is used without its version.
  report(placeOf(""), "a <" + rule.name + "> without \"" + missing.name + "\"" +
                          (rule.children.empty() ? " is left out" : "") + "; write " +
                          usageOf(rule));
}

void DocumentReader::explainValue(const ElementRule& rule, const ElementRule::Attribute& allowed,
                                  const std::string& value) {
  m_wrong.insert(allowed.name);
  if (rule.name == "preference" && allowed.name == "name") {
    explainPreferenceName(allowed.words, value);
    return;
  }
  const std::string text =
      "the value " + quoted(value) + " of \"" + allowed.name + "\" of <" + rule.name + "> " +
      (allowed.words.empty() ? allowed.rule
                             : "is not known" + allowedText(value, allowed.words, "\"", "\"")) +
      consequence(rule, &allowed);
  if (m_open.size() == 1) {
    refuse(placeOf(allowed.name), text);  // another version means other things by the same words
  } else {
    report(placeOf(allowed.name), text);
  }
}

void DocumentReader::explainPreferenceName(const std::vector<std::string>& allowed,
                                           const std::string& name) {
  const bool isElsewhere = PreferenceBase::find(name) != nullptr;
  report(placeOf("name"),
         isElsewhere
             ? "the preference " + quoted(name) + " has no effect here, it belongs in " +
                   (m_format == ConfigurationKind::Profile ? "a preferences file" : "a profile")
             : "unknown preference " + quoted(name) + " is ignored" +
                   allowedText(name, allowed, "\"", "\""));
}

// ---- What the entries say ---------------------------------------------------------------------

void DocumentReader::readPreference(const Attributes& attributes) {
  if (isWrong("name") || isWrong("value")) {
    return;
  }
  const PreferenceBase::Definition* definition = PreferenceBase::find(valueOf(attributes, "name"));
  const std::string value = valueOf(attributes, "value");
  if (definition != nullptr && checkValue(*definition, value) && isFirst(*definition)) {
    const bool isUsers =
        !isWrong("user-controllable") &&
        valueOf(attributes, "user-controllable") == PreferenceBase::PreferenceEnabled;
    const Place here = placeOf("");
    m_result.preferences.set(Preference(definition->id, value, isUsers, here.line, here.column));
  }
}

bool DocumentReader::isFirst(const PreferenceBase::Definition& definition) {
  const Place here = placeOf("");
  const auto [line, isNew] = m_preferenceLines.emplace(definition.id, here.line);
  if (!isNew) {
    report(here, std::string("the preference \"") + definition.name + "\" stands already in line " +
                     std::to_string(line->second) + "; the first one counts");
  }
  return isNew;
}

bool DocumentReader::checkValue(const PreferenceBase::Definition& definition,
                                const std::string& value) {
  const std::string error = PreferenceBase::findError(definition, value);
  if (error.empty()) {
    return true;
  }
  std::vector<std::string> words;
  for (const char* const* allowed = definition.words; *allowed != nullptr; ++allowed) {
    words.emplace_back(*allowed);
  }
  const std::string cost = definition.checkedByReader
                               ? std::string("it counts as \"") + definition.defaultValue + "\""
                               : "it is left out";
  report(placeOf("value"), "the value " + quoted(value) + " of " + definition.name +
                               meantText(nearestName(value, words), "\"", "\"") + " " +
                               oneLine(error, MaxSentenceLength) + "; " + cost);
  return definition.checkedByReader;
}

void DocumentReader::readHost(const Attributes& attributes) {
  const std::string name = valueOf(attributes, "name");
  std::string address = valueOf(attributes, "address");
  if (isBlank(address)) {
    address.clear();
  }
  const Place here = placeOf("");
  const ProfileFile::Host host{name, address, here.line, here.column};
  if (!m_wrong.empty()) {
    leaveOut(host, "it has a mistake");
    return;
  }
  const HostError error = findHostError(name, address);
  if (error.text.empty()) {
    m_host = host;  // taken at its end, if nothing wrong is inside
    return;
  }
  report(placeOf(error.attribute),
         "the host entry " + quoted(name) + " is left out: " + error.text);
  leaveOut(host, error.text);
}

/// Leaves the open entry out for what is inside it: where somebody has written the address there,
/// the name would take its place, and be another gateway.
std::string DocumentReader::abandonHost() {
  if (m_host) {
    leaveOut(*m_host, "it has a mistake");
    m_host.reset();
  }
  return "; the entry is left out";
}

void DocumentReader::leaveOut(const ProfileFile::Host& host, const std::string& reason) {
  if (m_result.leftOut.size() < MaxProblemsPerFile) {
    m_result.leftOut.push_back({host, reason});
  }
}

void DocumentReader::takeHost(const ProfileFile::Host& host) {
  if (m_result.hosts.size() < MaxHostsPerFile) {
    m_result.hosts.push_back(host);
  } else if (!m_hostsFull) {
    m_hostsFull = true;
    report({host.line, host.column}, "there are more than " + std::to_string(MaxHostsPerFile) +
                                         " host entries; those from here on are left out");
  }
}

// ---- Places -----------------------------------------------------------------------------------

/// How far the parser has come.
std::size_t DocumentReader::offset() const {
  const long consumed = xmlByteConsumed(m_context.get());
  return std::min(static_cast<std::size_t>(std::max(consumed, 0L)), m_contents.size());
}

/// Where an attribute of the last tag begins, the tag itself if it has none of that name.
std::size_t DocumentReader::offsetOfAttribute(const std::string& name) const {
  const std::size_t end = name.empty() ? m_tag : offset();
  std::size_t at = m_contents.find_first_of(" \t\r\n/>", m_tag);
  while (at < end) {
    const std::size_t begin = m_contents.find_first_not_of(" \t\r\n", at);
    const std::size_t open = m_contents.find_first_of("\"'", begin);
    if (begin >= end || open >= end) {
      break;
    }
    if (m_contents.compare(begin, name.size(), name) == 0 &&
        m_contents.find_first_of(" \t\r\n=", begin) == begin + name.size()) {
      return begin;
    }
    at = m_contents.find(m_contents[open], open + 1);
    at = at == std::string::npos ? at : at + 1;
  }
  return m_tag;
}

DocumentReader::Place DocumentReader::placeOf(const std::string& attribute) {
  return m_places->placeOf(offsetOfAttribute(attribute));
}

void DocumentReader::report(Place place, const std::string& text) {
  ++m_problemCount;
  if (m_problemCount < MaxProblemsPerFile) {
    m_problems.push_back({m_path, place.line, place.column, text});
  } else if (m_problemCount == MaxProblemsPerFile) {
    m_problems.push_back(
        {m_path, place.line, place.column, "the problems from here on are not listed", true});
  }
}

void DocumentReader::refuse(Place place, const std::string& text) {
  m_refused = true;
  // Listed even when the file has had its share of messages: it says why all the rest is moot.
  m_problems.push_back({m_path, place.line, place.column, text + "; the whole file is skipped"});
  if (m_context != nullptr) {
    xmlStopParser(m_context.get());
  }
}

}  // namespace

std::string FileProblem::toString() const {
  const std::string place = oneLine(file, MaxPathLength);
  return line == 0
             ? place + ": " + text
             : place + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + text;
}

bool readProfileFile(const std::string& path, ProfileFile& profile,
                     std::vector<FileProblem>& problems, FileTrust::Check check) {
  return DocumentReader(path, ConfigurationKind::Profile, check, problems).read(profile);
}

bool readPreferencesFile(const std::string& path, PreferenceInfo& preferences,
                         std::vector<FileProblem>& problems, FileTrust::Check check) {
  ProfileFile file;
  if (!DocumentReader(path, ConfigurationKind::Preferences, check, problems).read(file)) {
    return false;
  }
  preferences = std::move(file.preferences);
  return true;
}

ConfigurationKind readConfigurationFile(const std::string& path, ProfileFile& contents,
                                        std::vector<FileProblem>& problems,
                                        FileTrust::Check check) {
  DocumentReader reader(path, ConfigurationKind::Unknown, check, problems);
  static_cast<void>(reader.read(contents));
  return reader.format();
}
