#pragma once

#include <memory>
#include <string>

/// Writes an XML document piece by piece. Used by one thread at a time.
///
/// Errors latch: after the first one the other calls do nothing and `finish` reports it, so that a
/// caller checks once. Names and values are UTF-8; a value may hold any character that XML allows.
class SaxWriterIfc {
 public:
  SaxWriterIfc() = default;
  virtual ~SaxWriterIfc();
  SaxWriterIfc(const SaxWriterIfc&) = delete;
  SaxWriterIfc& operator=(const SaxWriterIfc&) = delete;

  virtual void startElement(const std::string& name) = 0;
  /// Adds an attribute to the element that was started last, before any of its children.
  virtual void addAttribute(const std::string& name, const std::string& value) = 0;
  virtual void endElement() = 0;

  /// Ends the document, elements still open included. To be called once, as the last.
  /// @param document receives the text on success and is left alone otherwise.
  /// @return whether the document is whole.
  virtual bool finish(std::string& document) = 0;
};

/// A writer into memory: UTF-8 with its declaration, one element a line, indented by one blank.
class CSaxMemoryWriter : public SaxWriterIfc {
 public:
  CSaxMemoryWriter();
  ~CSaxMemoryWriter() override;

  void startElement(const std::string& name) override;
  void addAttribute(const std::string& name, const std::string& value) override;
  void endElement() override;
  bool finish(std::string& document) override;

 private:
  struct Output;
  std::unique_ptr<Output> m_output;
  bool m_ok;
};
