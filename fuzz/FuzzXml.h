#pragma once
// Shared by the fuzz targets that read XML: the parse every reply goes through, and a walk over
// the whole tree with the accessors the readers use.

#include "xml/GDataXMLNode.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace FuzzXml {

// Parses the input as the transport does (nullptr when it is not XML). A failed parse must say why.
std::shared_ptr<GDataXMLDocument> parse(const uint8_t *data, size_t size);
// Visits every node below `node`: names, text, attributes (each looked up again by name) and the
// element children (each looked up again with elementsForName).
void walk(const std::shared_ptr<GDataXMLNode> &node);

} // namespace FuzzXml
