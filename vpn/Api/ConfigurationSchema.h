#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What an element of a configuration file may hold, as its schema says: the words for a person
/// whose file the schema rejects.
struct ElementRule {
  struct Attribute {
    std::string name;
    bool isRequired = false;
    std::vector<std::string> words;  ///< the values allowed; empty where a list cannot say it
    std::string rule;                ///< "must be ..." where a list of words cannot say it
  };
  std::string name;
  std::vector<Attribute> attributes;
  std::vector<ElementRule> children;
};

/// The schema of a configuration file, the one place that knows the structure of its format.
///
/// There is one for each format. It is compiled when it is first wanted, never freed, and constant;
/// any thread may use it within a CXmlScope.
class CConfigurationSchema {
 public:
  /// @throws std::bad_alloc; the next call tries again.
  static const CConfigurationSchema& profile();
  static const CConfigurationSchema& preferences();

  /// The outermost element of a file.
  const ElementRule& root() const { return m_root; }

  CConfigurationSchema(const CConfigurationSchema&) = delete;
  CConfigurationSchema& operator=(const CConfigurationSchema&) = delete;

 private:
  friend class CSchemaValidator;
  struct Compiled;

  explicit CConfigurationSchema(std::string_view text);
  ~CConfigurationSchema();

  std::unique_ptr<const Compiled> m_compiled;
  ElementRule m_root;
};

/// Asks the schema about one document, piece by piece as a parser finds them. The caller keeps to
/// elements that the schema knows at their place, and tells of each end: after one that it does not
/// know the schema would be silent about the rest. To be used by one thread within a CXmlScope.
class CSchemaValidator {
 public:
  struct Attribute {
    std::string name;
    std::string value;
  };

  /// @throws std::bad_alloc, as all of these.
  explicit CSchemaValidator(const CConfigurationSchema& schema);
  ~CSchemaValidator();
  CSchemaValidator(const CSchemaValidator&) = delete;
  CSchemaValidator& operator=(const CSchemaValidator&) = delete;

  /// @param element one of the schema's. @return whether its attributes may stand as they are.
  bool start(const ElementRule& element, const std::vector<Attribute>& attributes);
  /// @return whether the element that is open may hold the text.
  bool text(const std::string& text);
  void end(const ElementRule& element);

 private:
  struct State;
  bool wasAccepted();

  std::unique_ptr<State> m_state;
};
