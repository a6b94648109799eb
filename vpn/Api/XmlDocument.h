#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vpn/Api/ConfigurationBytes.h"

extern "C" {
struct _xmlParserCtxt;
struct _xmlSAXHandler;
}

/// An untrusted XML text, read once from beginning to end. A derived class is told of elements and
/// texts as they come; an exception that it throws ends the reading and leaves `read`. Bounds on
/// depth, attributes and names keep the time in proportion to the size. A document type is refused,
/// so no entity is ever expanded and nothing outside the text is fetched. One thread.
class XmlDocument {
 public:
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

 protected:
  using Place = ConfigurationBytes::Place;
  struct Attribute {
    std::string name;  ///< with its prefix
    std::string value;
  };
  using Attributes = std::vector<Attribute>;

  XmlDocument() = default;
  ~XmlDocument() = default;

  /// @param contents UTF-8 that `ConfigurationBytes::findByteProblem` accepts; must outlive the
  ///        object. @return whether all of it was read and nothing was refused.
  bool read(const std::string& contents);

  virtual void start(const std::string& name, const Attributes& attributes) = 0;
  virtual void end() = 0;
  virtual void text(const std::string& found) = 0;
  /// The text is refused as a whole; called once.
  virtual void refused(Place place, const std::string& reason) = 0;

  /// Refuses the text; nothing more is read.
  void refuse(Place place, const std::string& reason);

  /// The value of an attribute; null if there is none of that name.
  static const std::string* find(const Attributes& attributes, std::string_view name);
  /// The same; empty if there is none. It lives as long as the list.
  static const std::string& valueOf(const Attributes& attributes, std::string_view name);
  /// How many elements are open, the one that `start` is told of included.
  std::size_t depth() const { return m_depth; }

  /// Where the last tag begins.
  Place placeOfTag();
  /// Where an attribute of the last tag begins, the tag itself if it has none of that name.
  Place placeOf(const std::string& attribute);
  /// Where the text begins that `text` is told of.
  Place placeOfText();

 private:
  static void setCallbacks(_xmlSAXHandler& handler);
  template <class FunctionT>
  static void guarded(void* user, FunctionT function);

  bool hasTooManyNames();
  bool exceedsBounds(int attributeCount);
  std::size_t offset() const;
  std::size_t offsetOf(const std::string& attribute) const;

  const std::string* m_contents = nullptr;
  std::optional<ConfigurationBytes::PlaceFinder> m_places;
  _xmlParserCtxt* m_context = nullptr;
  std::size_t m_tag = 0;  // where the last tag begins
  std::size_t m_depth = 0;
  Attributes m_attributes;  // of the last tag
  bool m_refused = false;
  bool m_hasEnded = false;         // the parser has come to the end of the document
  std::exception_ptr m_exception;  // thrown in a callback, which may not leave through libxml2
};
