#pragma once
// GDataXMLElement is declared with the other wrappers of the XML layer.
#include "xml/GDataXMLNode.h"
