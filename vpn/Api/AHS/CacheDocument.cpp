// The text form of the selection cache, read with libxml2's event parser: nothing is kept of a
// document but what passed every check, and nothing at all unless the whole document passed.
//
// Whoever wrote the document, reading it takes time in proportion to its size. The parser alone
// does not give that: it compares each attribute of a tag with all others, and its table of names
// gets slow with many of them. Hence a tag is bounded before the parser sees it, no name is let
// through but those of the format, and the text is handed over in pieces, so that the first error
// is the end.

#include "vpn/Api/AHS/CacheDocument.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <string_view>

#include "vpn/Api/XmlScope.h"
#include "vpn/include/StringUtils.h"

namespace CacheDocument {

namespace {

/// Blanks of any kind in one tag. Every attribute needs one before it.
constexpr unsigned int MaxBlanksInTag = 256;

/// What the parser is given at a time, in bytes: few enough for the names that still come after an
/// error, and so many that a token as long as the file is not looked through too often.
constexpr std::size_t PieceSize = std::size_t{256} * 1024;

/// The largest time stamp that is taken for one: the last second of the year 9999.
constexpr unsigned long MaxTimestamp = 253402300799UL;

/// The largest version that there may ever be.
constexpr unsigned int MaxVersion = 999;

/// Results for which room is made at once, however many candidates a document claims.
constexpr std::size_t MaxReserved = 4096;

/// Longest piece of a wrong text in a message.
constexpr std::size_t MaxQuote = 60;

/// What a byte is to the check of a document.
enum class ByteKind : unsigned char { Plain, Blank, TagBegin, Wrong };

constexpr std::array<ByteKind, 256> byteKinds() {
  std::array<ByteKind, 256> kinds{};
  kinds.fill(ByteKind::Wrong);
  std::fill(kinds.begin() + 0x21, kinds.begin() + 0x7f, ByteKind::Plain);
  for (const char c : {' ', '\n', '\t', '\r'}) {
    kinds[static_cast<unsigned char>(c)] = ByteKind::Blank;
  }
  kinds['<'] = ByteKind::TagBegin;
  return kinds;
}

/// What is wrong with the bytes of a document, before anything is made of them. One look at each:
/// this is done at every cold start.
std::string findWrongBytes(const std::string& text) {
  static constexpr std::array<ByteKind, 256> Kinds = byteKinds();
  unsigned int blanks = 0;
  for (const char c : text) {
    const ByteKind kind = Kinds[static_cast<unsigned char>(c)];
    if (kind == ByteKind::Plain) {
      continue;
    }
    if (kind == ByteKind::Wrong) {
      return "not a text of ASCII characters";
    }
    blanks = kind == ByteKind::Blank ? blanks + 1 : 0;
    if (blanks > MaxBlanksInTag) {
      return "a tag is too long";
    }
  }
  return text.empty() ? "the file is empty" : "";
}

/// What stands in an attribute as it is; everything else `encode`s as \xNN.
bool isPlain(unsigned char byte) { return byte > 0x20 && byte < 0x7f && byte != '\\'; }

/// Whether `place` could have been written: a reference can bring in characters that the bytes of
/// the document did not show, and some of them would make it unreadable once it is written again.
bool isPlace(std::string_view place) {
  return std::all_of(place.begin(), place.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  return (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
}

template <class NumberT>
bool parseNumber(std::string_view text, NumberT least, NumberT most, NumberT& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() && number >= least &&
         number <= most;
}

/// The attributes of one element as the parser hands them over: five pointers each, of which the
/// first is the name and the last two bound the value.
class CAttributes {
 public:
  CAttributes(const xmlChar** attributes, int count) : m_attributes(attributes), m_count(count) {}

  bool find(std::string_view name, std::string_view& value) const {
    for (int i = 0; i < m_count; ++i) {
      const xmlChar** attribute = m_attributes + 5 * static_cast<std::ptrdiff_t>(i);
      if (attribute[1] == nullptr && name == reinterpret_cast<const char*>(attribute[0])) {
        value = std::string_view(reinterpret_cast<const char*>(attribute[3]),
                                 static_cast<std::size_t>(attribute[4] - attribute[3]));
        return true;
      }
    }
    return false;
  }

  int count() const { return m_count; }

  /// The same with an encoded value.
  bool find(std::string_view name, std::string& decoded) const {
    std::string_view value;
    return find(name, value) && decode(value, decoded);
  }

 private:
  const xmlChar** m_attributes;
  int m_count;
};

/// Whether the parser ended because it got no memory, which it does not always report, and which
/// says nothing of the document.
bool ranOutOfMemory(const xmlParserCtxt& parser) {
  constexpr int InputLost = XML_PARSER_EOF;  // what it says when its input buffer cannot grow
  return parser.errNo == XML_ERR_NO_MEMORY || parser.errNo == InputLost;
}

/// Takes the parser's events and builds the selections. The first error ends it.
class CReader {
 public:
  Form read(const std::string& text, Contents& contents, std::string& problem);

 private:
  static void onStart(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
                      int namespaceCount, const xmlChar** namespaces, int attributeCount,
                      int defaultedCount, const xmlChar** attributes);
  static void onEnd(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri);
  static void onDocumentType(void* context, const xmlChar* name, const xmlChar* publicId,
                             const xmlChar* systemId);
  static void onInstruction(void* context, const xmlChar* target, const xmlChar* data);
  static void onError(void* context, xmlErrorPtr error);

  void start(std::string_view name, const CAttributes& attributes);
  void startRoot(std::string_view name, const CAttributes& attributes);
  bool takeUse(const CAttributes& attributes, const std::string& key);
  void startSelection(std::string_view name, const CAttributes& attributes);
  void startHeadend(std::string_view name, const CAttributes& attributes);
  void end();
  void fail(const std::string& what);
  void failSafely(const char* what) noexcept;
  void parse(const std::string& text);

  xmlParserCtxtPtr m_parser = nullptr;
  Contents m_contents;
  Entries::iterator m_current = m_contents.entries.end();
  std::vector<CHeadendRTT> m_headends;  // of m_current, so far
  unsigned int m_version = 0;
  unsigned int m_depth = 0;
  std::string m_problem;
  // An exception of a callback must not cross the parser, which is C.
  std::exception_ptr m_exception;
};

void CReader::fail(const std::string& what) {
  if (m_problem.empty()) {
    m_problem = "line " + std::to_string(xmlSAX2GetLineNumber(m_parser)) + ": " + what;
  }
  xmlStopParser(m_parser);
}

void CReader::start(std::string_view name, const CAttributes& attributes) {
  switch (++m_depth) {
    case 1:
      return startRoot(name, attributes);
    case 2:
      return startSelection(name, attributes);
    case 3:
      return startHeadend(name, attributes);
    default:
      return fail(std::string("an element inside a ") + HeadendName);
  }
}

void CReader::startRoot(std::string_view name, const CAttributes& attributes) {
  std::string_view found;
  if (name != RootName) {
    fail("the document is a " + CStringUtils::printable(std::string(name), MaxQuote) + ", not a " +
         RootName);
  } else if (!attributes.find(VersionAttribute, found) ||
             !parseNumber(found, 1U, MaxVersion, m_version)) {
    m_version = 0;
    fail("a document without a right version");
  } else if (m_version > Version) {
    // What else a later version has, this one cannot know.
    fail("version " + std::to_string(m_version) + " of the format, later than " +
         std::to_string(Version));
  } else if (attributes.count() != 1) {
    fail("a document with other attributes than its version");
  }
}

/// The time of the last use, if there is one.
bool CReader::takeUse(const CAttributes& attributes, const std::string& key) {
  std::string_view used;
  unsigned long time = 0;
  const bool hasUse = attributes.find(UsedAttribute, used);
  if (attributes.count() != (hasUse ? 4 : 3) || (hasUse && m_version == 1)) {
    fail("a selection with more or fewer attributes than it has");
    return false;
  }
  if (hasUse && !parseNumber(used, 1UL, MaxTimestamp, time)) {
    fail("a selection without a right time of use");
    return false;
  }
  if (hasUse) {
    m_contents.uses[key] = time;
  }
  return true;
}

void CReader::startSelection(std::string_view name, const CAttributes& attributes) {
  std::string_view place;
  std::string_view stored;
  std::string knownHeadends;
  unsigned long timestamp = 0;
  if (name != SelectionName) {
    return fail(CStringUtils::printable(std::string(name), MaxQuote) + " where a " + SelectionName +
                " belongs");
  }
  if (m_contents.entries.size() >= MaxEntries) {
    return fail("more than " + std::to_string(MaxEntries) + " selections");
  }
  if (!attributes.find(PlaceAttribute, place) || !isPlace(place)) {
    return fail("a selection without a right place");
  }
  if (!attributes.find(KnownHeadendsAttribute, knownHeadends)) {
    return fail("a selection without right candidates");
  }
  if (!attributes.find(StoredAttribute, stored) ||
      !parseNumber(stored, 1UL, MaxTimestamp, timestamp)) {
    return fail("a selection without a right time stamp");
  }
  const std::string key = selectionKey(std::string(place), knownHeadends);
  const auto added = m_contents.entries.try_emplace(key, CCacheEntry());
  if (!added.second) {
    return fail("a second selection for the same candidates at the same place");
  }
  if (!takeUse(attributes, key)) {
    return;
  }
  m_current = added.first;
  m_current->second.SetKnownHeadends(knownHeadends);
  m_current->second.SetTimestamp(timestamp);
  m_headends.clear();
  const auto candidates =
      static_cast<std::size_t>(std::count(knownHeadends.begin(), knownHeadends.end(), ';'));
  m_headends.reserve(std::min(candidates, MaxReserved));
}

void CReader::startHeadend(std::string_view name, const CAttributes& attributes) {
  std::string_view metricText;
  std::string headend;
  unsigned int metric = 0;
  if (name != HeadendName) {
    return fail(CStringUtils::printable(std::string(name), MaxQuote) + " where a " + HeadendName +
                " belongs");
  }
  if (attributes.count() != 2) {
    return fail("a headend with more or fewer attributes than two");
  }
  if (m_headends.size() >= MaxRecords) {
    return fail("more than " + std::to_string(MaxRecords) + " headends");
  }
  if (!attributes.find(NameAttribute, headend) || headend.empty() ||
      headend.size() > MaxHeadendLength) {
    return fail("a headend without a right name");
  }
  if (!attributes.find(MetricAttribute, metricText) ||
      !parseNumber(metricText, 0U, std::numeric_limits<unsigned int>::max(), metric)) {
    return fail("a headend without a right metric");
  }
  m_headends.emplace_back(std::move(headend), metric);
}

void CReader::end() {
  if (m_depth-- != 2) {
    return;
  }
  if (m_headends.empty()) {
    m_contents.uses.erase(m_current->first);
    m_contents.entries.erase(m_current);  // a selection that names no headend answers no question
  } else {
    m_current->second.SetHeadendList(std::move(m_headends));
  }
}

void CReader::onStart(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar*,
                      int namespaceCount, const xmlChar**, int attributeCount, int,
                      const xmlChar** attributes) {
  CReader& reader = *static_cast<CReader*>(context);
  if (prefix != nullptr || namespaceCount != 0) {
    return reader.failSafely("a name with a namespace");
  }
  try {
    reader.start(reinterpret_cast<const char*>(name), CAttributes(attributes, attributeCount));
  } catch (...) {
    reader.m_exception = std::current_exception();
    xmlStopParser(reader.m_parser);
  }
}

void CReader::onEnd(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  static_cast<CReader*>(context)->end();
}

void CReader::failSafely(const char* what) noexcept {
  try {
    fail(what);
  } catch (...) {
    m_exception = std::current_exception();
    xmlStopParser(m_parser);
  }
}

void CReader::onDocumentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  static_cast<CReader*>(context)->failSafely("a document type declaration");
}

void CReader::onInstruction(void* context, const xmlChar*, const xmlChar*) {
  static_cast<CReader*>(context)->failSafely("a processing instruction");
}

void CReader::onError(void* context, xmlErrorPtr error) {
  CReader& reader = *static_cast<CReader*>(context);
  if (error->level < XML_ERR_ERROR || !reader.m_problem.empty()) {
    return;
  }
  try {
    std::string message = error->message != nullptr ? error->message : "not well-formed";
    while (!message.empty() && message.back() == '\n') {
      message.pop_back();
    }
    reader.m_problem =
        "line " + std::to_string(error->line) + ": " + CStringUtils::printable(message, MaxQuote);
  } catch (...) {
    reader.m_exception = std::current_exception();
  }
}

void CReader::parse(const std::string& text) {
  for (std::size_t begin = 0; begin < text.size(); begin += PieceSize) {
    const std::size_t size = std::min(PieceSize, text.size() - begin);
    if (xmlParseChunk(m_parser, text.data() + begin, static_cast<int>(size), 0) != 0) {
      return;
    }
  }
  xmlParseChunk(m_parser, "", 0, 1);
}

Form CReader::read(const std::string& text, Contents& contents, std::string& problem) {
  xmlSAXHandler handler;
  std::memset(&handler, 0, sizeof handler);
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = &onStart;
  handler.endElementNs = &onEnd;
  handler.internalSubset = &onDocumentType;
  handler.processingInstruction = &onInstruction;
  handler.serror = &onError;
  const std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> parser(
      xmlCreatePushParserCtxt(&handler, this, nullptr, 0, nullptr), &xmlFreeParserCtxt);
  if (parser == nullptr) {
    throw std::bad_alloc();
  }
  m_parser = parser.get();
  // NOENT: otherwise the parser hands over an ampersand as "&#38;"; XML's own entities are the only
  // ones without a document type. HUGE: the parser's own limits would refuse the key of a large
  // candidate set. IGNORE_ENC: the text is ASCII, whatever it says of itself.
  xmlCtxtUseOptions(m_parser,
                    XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_HUGE | XML_PARSE_IGNORE_ENC);
  parse(text);
  if (m_exception != nullptr) {
    std::rethrow_exception(m_exception);
  }
  if (ranOutOfMemory(*m_parser)) {
    throw std::bad_alloc();
  }
  if (m_problem.empty() && m_parser->wellFormed == 0) {
    m_problem = "not well-formed";
  }
  if (m_problem.empty()) {
    contents.entries.swap(m_contents.entries);
    contents.uses.swap(m_contents.uses);
    return Form::Right;
  }
  problem.swap(m_problem);
  return m_version > Version ? Form::Newer : Form::Wrong;
}

}  // namespace

std::string selectionKey(const std::string& place, const std::string& knownHeadends) {
  return place + KeySeparator + knownHeadends;
}

std::string encode(const std::string& text) {
  static const char digits[] = "0123456789abcdef";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isPlain(byte)) {
      encoded += c;
    } else {
      encoded += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xfU]};
    }
  }
  return encoded;
}

bool decode(std::string_view text, std::string& decoded) {
  // Mostly there is nothing to undo.
  const auto escaped = std::find_if_not(
      text.begin(), text.end(), [](char c) { return isPlain(static_cast<unsigned char>(c)); });
  auto i = static_cast<std::size_t>(escaped - text.begin());
  std::string plain;
  plain.reserve(text.size());
  plain.assign(text, 0, i);
  for (; i < text.size(); ++i) {
    if (isPlain(static_cast<unsigned char>(text[i]))) {
      plain += text[i];
      continue;
    }
    if (text[i] != '\\' || i + 3 >= text.size() || text[i + 1] != 'x') {
      return false;
    }
    const int high = hexValue(text[i + 2]);
    const int low = hexValue(text[i + 3]);
    // One spelling a text, so that what was read is written again to the letter.
    if (high < 0 || low < 0 || isPlain(static_cast<unsigned char>(high * 16 + low))) {
      return false;
    }
    plain += static_cast<char>(high * 16 + low);
    i += 3;
  }
  decoded.swap(plain);
  return true;
}

std::size_t writtenSize(const std::string& text) {
  constexpr std::size_t LongestEscape = 6;  // &quot; is longer than \xNN
  std::size_t size = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = isPlain(byte) && c != '&' && c != '<' && c != '>' && c != '"';
    size += plain ? 1 : LongestEscape;
  }
  return size;
}

std::string placeText(std::vector<std::string> place) {
  std::sort(place.begin(), place.end());
  place.erase(std::unique(place.begin(), place.end()), place.end());
  std::string text;
  for (const std::string& part : place) {
    text += (text.empty() ? "" : " ") + part;
  }
  return text;
}

Form parse(const std::string& text, Contents& contents, std::string& problem) {
  std::string wrong = findWrongBytes(text);
  if (!wrong.empty()) {
    problem.swap(wrong);
    return Form::Wrong;
  }
  const CXmlScope library;
  return CReader().read(text, contents, problem);
}

}  // namespace CacheDocument
