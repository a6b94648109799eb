// An XML writer on libxml2's text writer. The document reaches the caller whole or not at all.

#include "vpn/Api/SaxWriterIfc.h"

#include <libxml/xmlwriter.h>

namespace {

const xmlChar* xmlText(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

}  // namespace

SaxWriterIfc::SaxWriterIfc()
    : m_buffer(xmlBufferCreate()), m_writer(xmlNewTextWriterMemory(m_buffer, 0)) {
  // The default grows the buffer by what is missing, which copies a long document many times.
  xmlBufferSetAllocationScheme(m_buffer, XML_BUFFER_ALLOC_DOUBLEIT);
  m_ok = m_writer != nullptr && xmlTextWriterSetIndent(m_writer, 1) >= 0 &&
         xmlTextWriterStartDocument(m_writer, nullptr, "UTF-8", nullptr) >= 0;
}

SaxWriterIfc::~SaxWriterIfc() {
  xmlFreeTextWriter(m_writer);
  xmlBufferFree(m_buffer);
}

void SaxWriterIfc::startElement(const std::string& name) {
  m_ok = m_ok && xmlTextWriterStartElement(m_writer, xmlText(name)) >= 0;
}

void SaxWriterIfc::addAttribute(const std::string& name, const std::string& value) {
  m_ok = m_ok && xmlTextWriterWriteAttribute(m_writer, xmlText(name), xmlText(value)) >= 0;
}

void SaxWriterIfc::endElement() { m_ok = m_ok && xmlTextWriterEndElement(m_writer) >= 0; }

bool SaxWriterIfc::finish(std::string& document) {
  m_ok = m_ok && xmlTextWriterEndDocument(m_writer) >= 0 && xmlTextWriterFlush(m_writer) >= 0;
  if (m_ok) {
    document.assign(reinterpret_cast<const char*>(xmlBufferContent(m_buffer)),
                    static_cast<std::size_t>(xmlBufferLength(m_buffer)));
  }
  return m_ok;
}
