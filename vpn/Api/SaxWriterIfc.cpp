// An XML writer on libxml2's text writer. The document reaches the caller whole or not at all.

#include "vpn/Api/SaxWriterIfc.h"

#include <libxml/xmlwriter.h>

#include "vpn/Api/XmlScope.h"

namespace {

const xmlChar* xmlText(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

}  // namespace

SaxWriterIfc::~SaxWriterIfc() = default;

struct CSaxMemoryWriter::Output {
  Output() : buffer(xmlBufferCreate()), writer(nullptr) {
    if (buffer != nullptr) {
      // The default grows the buffer by what is missing, which copies a long document many times.
      xmlBufferSetAllocationScheme(buffer, XML_BUFFER_ALLOC_DOUBLEIT);
      writer = xmlNewTextWriterMemory(buffer, 0);
    }
  }
  ~Output() {
    if (writer != nullptr) {
      xmlFreeTextWriter(writer);
    }
    if (buffer != nullptr) {
      xmlBufferFree(buffer);
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  const CXmlScope library;  // first: the others are libxml2's
  xmlBufferPtr buffer;
  xmlTextWriterPtr writer;
};

CSaxMemoryWriter::CSaxMemoryWriter()
    : m_output(std::make_unique<Output>()), m_ok(m_output->writer != nullptr) {
  m_ok = m_ok && xmlTextWriterSetIndent(m_output->writer, 1) >= 0 &&
         xmlTextWriterStartDocument(m_output->writer, nullptr, "UTF-8", nullptr) >= 0;
}

CSaxMemoryWriter::~CSaxMemoryWriter() = default;

void CSaxMemoryWriter::startElement(const std::string& name) {
  m_ok = m_ok && xmlTextWriterStartElement(m_output->writer, xmlText(name)) >= 0;
}

void CSaxMemoryWriter::addAttribute(const std::string& name, const std::string& value) {
  m_ok = m_ok && xmlTextWriterWriteAttribute(m_output->writer, xmlText(name), xmlText(value)) >= 0;
}

void CSaxMemoryWriter::endElement() {
  m_ok = m_ok && xmlTextWriterEndElement(m_output->writer) >= 0;
}

bool CSaxMemoryWriter::finish(std::string& document) {
  m_ok = m_ok && xmlTextWriterEndDocument(m_output->writer) >= 0 &&
         xmlTextWriterFlush(m_output->writer) >= 0;
  if (!m_ok) {
    return false;
  }
  const xmlBuffer* const buffer = m_output->buffer;
  document.assign(reinterpret_cast<const char*>(xmlBufferContent(buffer)),
                  static_cast<std::size_t>(xmlBufferLength(buffer)));
  return true;
}
