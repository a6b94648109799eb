// The schemas of configuration files, compiled by libxml2 from the texts that the build has put
// into the library. What libxml2 says of a rejected element is for programmers, so the same text is
// read once more for what a person is told; whether a file is right, libxml2 alone decides.

#include "vpn/Api/ConfigurationSchema.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/xmlschemas.h>

#include <new>

#include "SchemaTexts.h"
#include "vpn/Api/XmlScope.h"

namespace {

// What libxml2 does with schemas, it does not survive without memory. That there is this much is
// tried first: several times what a schema takes, and one tag with its values and messages.
constexpr std::size_t CompilationHeadroom = std::size_t{2} * 1024 * 1024;
constexpr std::size_t TagHeadroom = std::size_t{96} * 1024;

/// @throws std::bad_alloc if there is less memory than that.
void tryMemory(std::size_t size) { ::operator delete(::operator new(size)); }

template <auto Free>
struct FreedBy {
  template <class ObjectT>
  void operator()(ObjectT* object) const {
    Free(object);
  }
};

using Document = std::unique_ptr<xmlDoc, FreedBy<xmlFreeDoc>>;
using Schema = std::unique_ptr<xmlSchema, FreedBy<xmlSchemaFree>>;
using SchemaParser = std::unique_ptr<xmlSchemaParserCtxt, FreedBy<xmlSchemaFreeParserCtxt>>;
using Validator = std::unique_ptr<xmlSchemaValidCtxt, FreedBy<xmlSchemaFreeValidCtxt>>;

template <class PointerT>
PointerT required(PointerT pointer) {
  if (pointer == nullptr) {
    throw std::bad_alloc();
  }
  return pointer;
}

const xmlChar* xmlText(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

void drop(void* /*context*/, xmlErrorPtr /*error*/) {}

// ---- What the schema says, for people ---------------------------------------------------------

bool isNamed(const xmlNode& node, const char* name) {
  return node.type == XML_ELEMENT_NODE && xmlStrEqual(node.name, BAD_CAST name) != 0;
}

std::string attributeOf(const xmlNode& node, const char* name) {
  const std::unique_ptr<xmlChar, decltype(xmlFree)> value(
      xmlGetNoNsProp(const_cast<xmlNode*>(&node), BAD_CAST name), xmlFree);
  return value != nullptr ? reinterpret_cast<const char*>(value.get()) : "";
}

/// The elements of a name below a node, without those inside another element's declaration.
void collect(const xmlNode& node, const char* name, std::vector<const xmlNode*>& found) {
  for (const xmlNode* child = node.children; child != nullptr; child = child->next) {
    if (isNamed(*child, name)) {
      found.push_back(child);
    } else if (!isNamed(*child, "element")) {
      collect(*child, name, found);
    }
  }
}

std::vector<const xmlNode*> collect(const xmlNode& node, const char* name) {
  std::vector<const xmlNode*> found;
  collect(node, name, found);
  return found;
}

ElementRule::Attribute attributeRule(const xmlNode& schema, const xmlNode& declaration) {
  ElementRule::Attribute rule;
  rule.name = attributeOf(declaration, "name");
  rule.isRequired = attributeOf(declaration, "use") == "required";
  const std::string typeName = attributeOf(declaration, "type");
  for (const xmlNode* type : collect(schema, "simpleType")) {
    if (attributeOf(*type, "name") != typeName) {
      continue;
    }
    for (const xmlNode* word : collect(*type, "enumeration")) {
      rule.words.push_back(attributeOf(*word, "value"));
    }
    for (const xmlNode* text : collect(*type, "documentation")) {
      const std::unique_ptr<xmlChar, decltype(xmlFree)> content(xmlNodeGetContent(text), xmlFree);
      rule.rule = content != nullptr ? reinterpret_cast<const char*>(content.get()) : "";
    }
  }
  return rule;
}

ElementRule elementRule(const xmlNode& schema, const xmlNode& declaration) {
  ElementRule rule;
  rule.name = attributeOf(declaration, "name");
  for (const xmlNode* attribute : collect(declaration, "attribute")) {
    rule.attributes.push_back(attributeRule(schema, *attribute));
  }
  for (const xmlNode* child : collect(declaration, "element")) {
    rule.children.push_back(elementRule(schema, *child));
  }
  return rule;
}

}  // namespace

// The document stays: the schema refers to its nodes.
struct CConfigurationSchema::Compiled {
  Document document;
  Schema schema;
};

const CConfigurationSchema& CConfigurationSchema::profile() {
  static const CConfigurationSchema& schema = *new CConfigurationSchema(ProfileSchemaText);
  return schema;
}

const CConfigurationSchema& CConfigurationSchema::preferences() {
  static const CConfigurationSchema& schema = *new CConfigurationSchema(PreferencesSchemaText);
  return schema;
}

CConfigurationSchema::CConfigurationSchema(std::string_view text) {
  const CXmlScope library;
  tryMemory(CompilationHeadroom);
  auto compiled = std::make_unique<Compiled>();
  compiled->document.reset(required(xmlReadMemory(text.data(), static_cast<int>(text.size()),
                                                  nullptr, nullptr, XML_PARSE_NONET)));
  const SchemaParser parser(required(xmlSchemaNewDocParserCtxt(compiled->document.get())));
  xmlSchemaSetParserStructuredErrors(parser.get(), drop, nullptr);
  compiled->schema.reset(required(xmlSchemaParse(parser.get())));
  const xmlNode& root = *required(xmlDocGetRootElement(compiled->document.get()));
  m_root = elementRule(root, *collect(root, "element").at(0));
  m_compiled = std::move(compiled);
}

CConfigurationSchema::~CConfigurationSchema() = default;

// ---- One document -----------------------------------------------------------------------------

struct CSchemaValidator::State {
  Validator validator;
  xmlSAXHandler* handler = nullptr;  // the validator's own
  void* user = nullptr;
  xmlSchemaSAXPlugPtr plug = nullptr;
  bool isAccepted = true;
  bool isOutOfMemory = false;

  State() = default;
  ~State() { xmlSchemaSAXUnplug(plug); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  static void onError(void* state, xmlErrorPtr error) {
    State& self = *static_cast<State*>(state);
    self.isAccepted = false;
    // An error of libxml2's own has no other reason.
    self.isOutOfMemory = self.isOutOfMemory || error->code == XML_ERR_NO_MEMORY ||
                         error->code == XML_SCHEMAV_INTERNAL;
  }
};

CSchemaValidator::CSchemaValidator(const CConfigurationSchema& schema)
    : m_state(std::make_unique<State>()) {
  State& state = *m_state;
  tryMemory(TagHeadroom);
  state.validator.reset(required(xmlSchemaNewValidCtxt(schema.m_compiled->schema.get())));
  xmlSchemaSetValidStructuredErrors(state.validator.get(), State::onError, &state);
  state.plug = required(xmlSchemaSAXPlug(state.validator.get(), &state.handler, &state.user));
}

CSchemaValidator::~CSchemaValidator() = default;

bool CSchemaValidator::start(const ElementRule& element, const std::vector<Attribute>& attributes) {
  tryMemory(TagHeadroom);
  // Local name, prefix, namespace, value, end of value.
  constexpr std::size_t Fields = 5;
  std::vector<const xmlChar*> fields(Fields * attributes.size());
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    fields[Fields * i] = xmlText(attributes[i].name);
    fields[Fields * i + 3] = xmlText(attributes[i].value);
    fields[Fields * i + 4] = xmlText(attributes[i].value) + attributes[i].value.size();
  }
  m_state->handler->startElementNs(m_state->user, xmlText(element.name), nullptr, nullptr, 0,
                                   nullptr, static_cast<int>(attributes.size()), 0, fields.data());
  return wasAccepted();
}

bool CSchemaValidator::text(const std::string& text) {
  tryMemory(TagHeadroom);
  m_state->handler->characters(m_state->user, xmlText(text), static_cast<int>(text.size()));
  return wasAccepted();
}

void CSchemaValidator::end(const ElementRule& element) {
  tryMemory(TagHeadroom);
  m_state->handler->endElementNs(m_state->user, xmlText(element.name), nullptr, nullptr);
  static_cast<void>(wasAccepted());
}

bool CSchemaValidator::wasAccepted() {
  if (m_state->isOutOfMemory) {
    throw std::bad_alloc();
  }
  return std::exchange(m_state->isAccepted, true);
}
