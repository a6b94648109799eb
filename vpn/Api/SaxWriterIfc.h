#pragma once

#include <string>

#include "vpn/Api/XmlScope.h"

extern "C" {
struct _xmlBuffer;
struct _xmlTextWriter;
}

/// Writes an XML document into memory: UTF-8 with its declaration, one element a line, indented by
/// one blank. Used by one thread.
///
/// Errors latch: after the first one the other calls do nothing and `finish` reports it, so that a
/// caller checks once. Names and values are UTF-8; a value may hold any character that XML allows.
class SaxWriterIfc {
 public:
  SaxWriterIfc();
  ~SaxWriterIfc();
  SaxWriterIfc(const SaxWriterIfc&) = delete;
  SaxWriterIfc& operator=(const SaxWriterIfc&) = delete;

  void startElement(const std::string& name);
  /// Adds an attribute to the element that was started last, before any of its children.
  void addAttribute(const std::string& name, const std::string& value);
  void endElement();

  /// Ends the document, elements still open included. To be called once, as the last.
  /// @param document receives the text on success and is left alone otherwise.
  /// @return whether the document is whole.
  bool finish(std::string& document);

 private:
  const CXmlScope m_library;  // first: the others are libxml2's
  _xmlBuffer* m_buffer;
  _xmlTextWriter* m_writer;
  bool m_ok;
};
