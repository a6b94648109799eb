// The mistakes in XML that people make, each with what to do. The rest shares one sentence: whoever
// gets it has its line and column.

#include "vpn/Api/XmlProblem.h"

#include <libxml/xmlerror.h>

#include <algorithm>
#include <array>

#include "vpn/Api/ConfigurationText.h"

namespace {

// As much of a name as a message shows, in bytes.
constexpr std::size_t MaxNameLength = 80;

struct Sentence {
  int code;
  const char* text;
};

// libxml2 has several codes for some.
constexpr std::array Sentences = {
    Sentence{XML_ERR_DOCUMENT_EMPTY, "there is no element; the file has to begin with a tag"},
    Sentence{XML_ERR_DOCUMENT_END, "something stands after the end of the outermost element"},
    Sentence{XML_ERR_ATTRIBUTE_WITHOUT_VALUE, "an attribute has no value; write name=\"value\""},
    Sentence{XML_ERR_ATTRIBUTE_NOT_STARTED,
             "the value of an attribute has to stand between quotation marks"},
    Sentence{XML_ERR_ATTRIBUTE_NOT_FINISHED, "the closing quotation mark of a value is missing"},
    Sentence{XML_ERR_LT_IN_ATTRIBUTE,
             "\"<\" stands in a value; the closing quotation mark before it is missing, or it has "
             "to be written as &lt;"},
    Sentence{XML_ERR_SPACE_REQUIRED,
             "a blank is missing; probably a quotation mark before this place is missing or "
             "surplus"},
    Sentence{XML_ERR_GT_REQUIRED,
             "the \">\" at the end of a tag is missing, or what stands there "
             "is no attribute"},
    Sentence{XML_ERR_LTSLASH_REQUIRED, "an end tag </...> is missing"},
    Sentence{XML_ERR_NAME_REQUIRED,
             "a name is missing; \"<\" and \"&\" that stand for themselves "
             "have to be written as &lt; and &amp;"},
    Sentence{XML_ERR_ENTITYREF_SEMICOL_MISSING,
             "a \";\" is missing; \"&\" that stands for itself has to be written as &amp;"},
    Sentence{XML_ERR_INVALID_CHAR, "a character that XML does not allow stands there"},
    Sentence{XML_ERR_INVALID_CHARREF, "&#...; names a character that XML does not allow"},
    Sentence{XML_ERR_INVALID_DEC_CHARREF, "&#...; needs a decimal number and \";\""},
    Sentence{XML_ERR_INVALID_HEX_CHARREF, "&#x...; needs a hexadecimal number and \";\""},
    Sentence{XML_ERR_COMMENT_NOT_FINISHED, "a comment has no end; write --> after it"},
    Sentence{XML_ERR_HYPHEN_IN_COMMENT, "\"--\" must not stand inside a comment"},
    Sentence{XML_ERR_CDATA_NOT_FINISHED, "a <![CDATA[ has no end; write ]]> after it"},
    Sentence{XML_ERR_MISPLACED_CDATA_END, "\"]]>\" must not stand in a text"},
    Sentence{XML_ERR_PI_NOT_FINISHED, "a <? has no end; write ?> after it"},
    Sentence{XML_ERR_XMLDECL_NOT_FINISHED, "the <?xml ...?> at the beginning has no end"},
    Sentence{XML_ERR_XMLDECL_NOT_STARTED, "the <?xml ...?> at the beginning is not right"},
    Sentence{XML_ERR_RESERVED_XML_NAME, "<?xml ...?> may stand at the very beginning alone"},
    Sentence{XML_ERR_VERSION_MISSING, "the <?xml ...?> at the beginning needs version=\"1.0\""},
    Sentence{XML_ERR_UNKNOWN_VERSION, "the <?xml ...?> at the beginning needs version=\"1.0\""},
};

std::string nameOf(const char* name) {
  return ConfigurationText::oneLine(name != nullptr ? name : "", MaxNameLength);
}

std::string sentenceFor(const _xmlError& error) {
  const std::string first = nameOf(error.str1);
  switch (error.code) {
    case XML_ERR_TAG_NAME_MISMATCH:
      return "</" + nameOf(error.str2) + "> stands where <" + first + "> has to be closed by </" +
             first + ">";
    case XML_ERR_TAG_NOT_FINISHED:
      return "the file ends inside <" + first + ">; </" + first + "> is missing";
    case XML_ERR_UNDECLARED_ENTITY:
    case XML_WAR_UNDECLARED_ENTITY:
      return "there is no entity \"" + first +
             "\"; allowed are &amp; &lt; &gt; &quot; &apos; and numbers as in &#233;";
    case XML_ERR_ATTRIBUTE_REDEFINED:
      return "the attribute \"" + first + "\" stands twice in one tag";
    case XML_NS_ERR_UNDEFINED_NAMESPACE:
      return "the prefix \"" + first + ":\" is not known; remove it";
    default:
      break;
  }
  const auto* found = std::find_if(Sentences.begin(), Sentences.end(),
                                   [&](const Sentence& s) { return s.code == error.code; });
  return found != Sentences.end() ? found->text
                                  : "what stands there breaks a rule of XML (number " +
                                        std::to_string(error.code) + " of libxml2)";
}

}  // namespace

std::string xmlProblem(const _xmlError& error) {
  return "is not well-formed XML: " + sentenceFor(error);
}
