// What the two SCL readers share: libxml2 access (parsing a file, element
// names, attributes and element text, every text bounded and no entity read
// from outside the file) and the type templates reader that readICD calls.
#ifndef QV_LOADER_SCL_XML_H
#define QV_LOADER_SCL_XML_H

#include <libxml/tree.h>

#include <string>

#include "model.h"

namespace qvaddied {

// False, after a line naming the file and the system's reason, when the
// file cannot be opened for reading as a file; otherwise *size is its size.
bool isReadableFile(const char* file, long* size);

// The file parsed into a tree, or null after libxml2's own lines on standard
// error. Safe in several threads at once. The caller frees the tree.
xmlDocPtr parseFile(const char* file);

// All text children of an element, entity references replaced.
std::string elementText(xmlNodePtr element);

// Texts read from the file are cut at kTextLimit bytes: every field is
// shorter, and a text built from entities referenced many times stays cheap.
// Type ids are compared whole, so they get a limit no real id reaches.
constexpr std::size_t kTextLimit = 1024;
constexpr std::size_t kIdTextLimit = 65536;

// One attribute of an element, read without libxml2's unbounded expansion.
class Attribute {
public:
    Attribute(xmlNodePtr element, const char* name, std::size_t limit = kTextLimit);

    bool present() const { return present_; }
    // The empty text when absent.
    const char* text() const { return text_.c_str(); }
    // True when present; otherwise names the element and attribute on stderr.
    bool required() const;

private:
    xmlNodePtr element_;
    const char* name_;
    bool present_ = false;
    std::string text_;
};

inline bool isElement(xmlNodePtr node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST name) == 0;
}

// Visits the child elements named `name` in document order; stops at the
// first visit that fails.
template <typename Visit>
int forEachChild(xmlNodePtr parent, const char* name, Visit visit) {
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        if (isElement(child, name) && visit(child) != 0) return -1;
    }
    return 0;
}

// The type templates reader, called by readICD for each "DataTypeTemplates".
int readDataTypeTemplates(Model& model, xmlNodePtr cur);

}  // namespace qvaddied

#endif  // QV_LOADER_SCL_XML_H
