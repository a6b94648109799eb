// Reads XML with libxml2's callbacks. No document tree is built. No exception passes through
// libxml2: the first one is kept, stops the parser, and is rethrown after the parser returns.

#include "vpn/Api/XmlDocument.h"

#include <libxml/parser.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

#include "vpn/Api/ConfigurationText.h"
#include "vpn/Api/XmlScope.h"
#include "vpn/include/StringUtils.h"

namespace {

// The formats nest three deep.
constexpr std::size_t MaxDepth = 16;

// No element takes more than three.
constexpr int MaxAttributes = 16;

// Most names of elements, attributes and processing instructions in a file. libxml2 keeps each in a
// table whose look-ups grow with it; the formats have a dozen.
constexpr int MaxNames = 1000;

// Longest sentence of libxml2 in a message, in bytes; it may hold a name of the file.
constexpr std::size_t MaxSentenceLength = 400;

constexpr const char* Blanks = " \t\r\n";

std::string toText(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

std::string qualified(const xmlChar* prefix, const xmlChar* localName) {
  return prefix != nullptr ? toText(prefix) + ":" + toText(localName) : toText(localName);
}

/// An attribute's value. libxml2 leaves each ampersand as "&#38;" when it is told to replace no
/// entity; no other reference can be left.
std::string attributeValue(const xmlChar* begin, const xmlChar* end) {
  static constexpr std::string_view Ampersand = "&#38;";
  std::string value(reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin));
  for (std::size_t i = value.find(Ampersand); i != std::string::npos;
       i = value.find(Ampersand, i + 1)) {
    value.replace(i, Ampersand.size(), "&");
  }
  return value;
}

/// Describes a libxml2 error, in other words where its own do not say what to do.
std::string problemOf(const xmlError& error) {
  std::string sentence = error.message != nullptr ? error.message : "";
  switch (error.code) {
    case XML_ERR_NAME_REQUIRED:
    case XML_ERR_ENTITYREF_SEMICOL_MISSING:
      sentence = "\"<\" and \"&\" that stand for themselves have to be written as &lt; and &amp;";
      break;
    case XML_ERR_ATTRIBUTE_NOT_STARTED:
    case XML_ERR_SPACE_REQUIRED:
    case XML_ERR_GT_REQUIRED:
      sentence = "a quotation mark, a blank or the \">\" of a tag is missing, or one is surplus";
      break;
    case XML_ERR_LT_IN_ATTRIBUTE:
      sentence =
          "\"<\" stands in a value; the closing quotation mark before it is missing, or it has to "
          "be written as &lt;";
      break;
    default:
      break;
  }
  return "is not well-formed XML: " +
         ConfigurationText::oneLine(std::string(CStringUtils::trimmed(sentence)),
                                    MaxSentenceLength);
}

}  // namespace

bool XmlDocument::read(const std::string& contents) {
  m_contents = &contents;
  m_places.emplace(contents);
  const CXmlScope library;
  const std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> context(xmlNewParserCtxt(),
                                                                             &xmlFreeParserCtxt);
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  m_context = context.get();
  setCallbacks(*m_context->sax);
  m_context->userData = this;
  // The bytes are known to be UTF-8, whatever the document says of itself; their bounds are ours.
  constexpr int options = XML_PARSE_NONET | XML_PARSE_IGNORE_ENC | XML_PARSE_HUGE;
  // Without the callbacks that build one, there is no document to return.
  xmlCtxtReadMemory(m_context, contents.data(), static_cast<int>(contents.size()), nullptr, nullptr,
                    options);
  if (m_exception) {
    std::rethrow_exception(m_exception);
  }
  if (!m_refused && !m_hasEnded) {
    throw std::bad_alloc();  // the only reason to stop that it may keep to itself
  }
  if (!m_refused && m_context->wellFormed == 0) {
    refuse({}, "is not well-formed XML");
  }
  return !m_refused;
}

void XmlDocument::refuse(Place place, const std::string& reason) {
  m_refused = true;
  refused(place, reason);
  xmlStopParser(m_context);
}

template <class FunctionT>
void XmlDocument::guarded(void* user, FunctionT function) {
  XmlDocument& document = *static_cast<XmlDocument*>(user);
  if (document.m_refused || document.m_exception) {
    return;
  }
  try {
    function(document);
  } catch (...) {
    document.m_exception = std::current_exception();
    xmlStopParser(document.m_context);
  }
}

void XmlDocument::setCallbacks(_xmlSAXHandler& handler) {
  // Every callback that is not named stays null: no document tree is built, no entity is kept.
  handler = {};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = [](void* user, const xmlChar* localName, const xmlChar* prefix,
                              const xmlChar*, int namespaceCount, const xmlChar** namespaces,
                              int attributeCount, int, const xmlChar** attributes) {
    guarded(user, [&](XmlDocument& document) {
      // A "<" stands nowhere in a tag but at its beginning.
      document.m_tag = document.m_contents->rfind('<', document.offset());
      if (document.exceedsBounds(std::max(attributeCount, namespaceCount))) {
        return;
      }
      Attributes& list = document.m_attributes;
      list.clear();
      for (int i = 0; i < namespaceCount; ++i, namespaces += 2) {
        list.push_back({namespaces[0] != nullptr ? "xmlns:" + toText(namespaces[0]) : "xmlns",
                        toText(namespaces[1])});
      }
      for (int i = 0; i < attributeCount; ++i, attributes += 5) {
        list.push_back({qualified(attributes[1], attributes[0]),
                        attributeValue(attributes[3], attributes[4])});
      }
      ++document.m_depth;
      document.start(qualified(prefix, localName), list);
    });
  };
  handler.endElementNs = [](void* user, const xmlChar*, const xmlChar*, const xmlChar*) {
    guarded(user, [](XmlDocument& document) {
      --document.m_depth;
      document.end();
    });
  };
  handler.characters = [](void* user, const xmlChar* text, int length) {
    guarded(user, [&](XmlDocument& document) {
      document.text(
          std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)));
    });
  };
  handler.cdataBlock = handler.characters;
  handler.processingInstruction = [](void* user, const xmlChar*, const xmlChar*) {
    guarded(user, [](XmlDocument& document) {
      document.m_tag = document.m_contents->rfind("<?", document.offset());
      static_cast<void>(document.hasTooManyNames());
    });
  };
  handler.internalSubset = [](void* user, const xmlChar*, const xmlChar*, const xmlChar*) {
    guarded(user, [](XmlDocument& document) {
      document.refuse(
          document.m_places->placeOf(document.m_contents->rfind("<!DOCTYPE", document.offset())),
          "a document type (<!DOCTYPE ...>) is not allowed; remove it");
    });
  };
  handler.endDocument = [](void* user) { static_cast<XmlDocument*>(user)->m_hasEnded = true; };
  handler.serror = [](void* user, xmlErrorPtr error) {
    if (error->level < XML_ERR_ERROR) {
      return;
    }
    guarded(user, [&](XmlDocument& document) {
      if (error->code == XML_ERR_NO_MEMORY) {
        throw std::bad_alloc();
      }
      document.refuse(document.m_places->placeOf(document.offset()), problemOf(*error));
    });
  };
}

bool XmlDocument::hasTooManyNames() {
  if (xmlDictSize(m_context->dict) <= MaxNames) {
    return false;
  }
  refuse(placeOfTag(),
         "there are more than " + std::to_string(MaxNames) +
             " different names of elements, attributes and <? ?> in it, the most that is allowed");
  return true;
}

/// Refuses the text for a tag of which there is too much.
bool XmlDocument::exceedsBounds(int attributeCount) {
  if (hasTooManyNames()) {
    return true;
  }
  if (attributeCount > MaxAttributes) {
    refuse(placeOfTag(), "an element has more than " + std::to_string(MaxAttributes) +
                             " attributes, the most that is allowed");
    return true;
  }
  if (m_depth >= MaxDepth) {
    refuse(placeOfTag(), "elements are nested more than " + std::to_string(MaxDepth) + " deep");
    return true;
  }
  return false;
}

/// How far the parser has come.
std::size_t XmlDocument::offset() const {
  const long consumed = xmlByteConsumed(m_context);
  return std::min(static_cast<std::size_t>(std::max(consumed, 0L)), m_contents->size());
}

std::size_t XmlDocument::offsetOf(const std::string& attribute) const {
  const std::size_t end = offset();
  std::size_t at = m_contents->find_first_of(" \t\r\n/>", m_tag);
  while (at < end) {
    const std::size_t begin = m_contents->find_first_not_of(Blanks, at);
    const std::size_t open = m_contents->find_first_of("\"'", begin);
    if (begin >= end || open >= end) {
      break;
    }
    if (m_contents->compare(begin, attribute.size(), attribute) == 0 &&
        m_contents->find_first_of(" \t\r\n=", begin) == begin + attribute.size()) {
      return begin;
    }
    at = m_contents->find((*m_contents)[open], open + 1);
    at = at == std::string::npos ? at : at + 1;
  }
  return m_tag;
}

const std::string* XmlDocument::find(const Attributes& attributes, std::string_view name) {
  const auto found = std::ranges::find(attributes, name, &Attribute::name);
  return found != attributes.end() ? &found->value : nullptr;
}

const std::string& XmlDocument::valueOf(const Attributes& attributes, std::string_view name) {
  static const std::string& none = *new std::string;
  const std::string* const value = find(attributes, name);
  return value != nullptr ? *value : none;
}

XmlDocument::Place XmlDocument::placeOfTag() { return m_places->placeOf(m_tag); }

XmlDocument::Place XmlDocument::placeOf(const std::string& attribute) {
  return m_places->placeOf(offsetOf(attribute));
}

XmlDocument::Place XmlDocument::placeOfText() {
  const std::size_t end = offset();
  const std::size_t tag = m_contents->rfind('>', end - 1);
  const std::size_t begin = m_contents->find_first_not_of(Blanks, tag + 1);
  // A text without a beginning before its end is a <![CDATA[...]]>.
  return m_places->placeOf(begin < end ? begin : m_contents->rfind('<', end - 1));
}
