// libxml2 access for the SCL readers: opening and parsing the file with
// libxml2's complaints routed to standard error, and bounded reads of
// attribute and element texts.
#include "scl_xml.h"

#include <fcntl.h>
#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "internal/qvreport.h"

namespace qvaddied {

namespace {

constexpr int kEntityDepthLimit = 16;
constexpr std::size_t kXmlMessageLimit = 100;

void appendText(std::string& out, const xmlChar* text, std::size_t limit) {
    if (text == nullptr) return;
    const char* chars = reinterpret_cast<const char*>(text);
    out.append(chars, cutLength(chars, std::strlen(chars), limit - out.size()));
}

// The text and entity-reference nodes of a list, entities replaced, cut at
// `limit`. Only internal entities are followed: an external one (a file
// or a URL) is never read.
void appendNodeListText(xmlDocPtr doc, xmlNodePtr node, std::string& out, int depth,
                        std::size_t limit) {
    for (; node != nullptr && out.size() < limit; node = node->next) {
        if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
            appendText(out, node->content, limit);
        } else if (node->type == XML_ENTITY_REF_NODE && depth < kEntityDepthLimit) {
            xmlEntityPtr entity = xmlGetDocEntity(doc, node->name);
            if (entity == nullptr || (entity->etype != XML_INTERNAL_GENERAL_ENTITY &&
                                      entity->etype != XML_INTERNAL_PREDEFINED_ENTITY))
                continue;
            if (entity->children != nullptr)
                appendNodeListText(doc, entity->children, out, depth + 1, limit);
            else
                appendText(out, entity->content, limit);
        }
    }
}

std::string nodeListText(xmlDocPtr doc, xmlNodePtr list, std::size_t limit = kTextLimit) {
    std::string text;
    appendNodeListText(doc, list, text, 0, limit);
    return text;
}

// libxml2's errors and warnings, one line each, naming file and line, kept
// until the parse ends: on a file that parses they are warnings.
struct XmlMessages {
    const char* file;  // the file being parsed, for text that came from an entity
    std::vector<std::string> lines;
};

void collectXmlError(void* context, xmlErrorPtr error) {
    if (error == nullptr || error->message == nullptr) return;
    auto* messages = static_cast<XmlMessages*>(context);
    if (messages->lines.size() >= kXmlMessageLimit) return;  // a hostile file's flood
    std::string message = error->message;
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    const char* file = error->file != nullptr ? error->file : messages->file;
    messages->lines.push_back(shownText(file) + ":" + std::to_string(error->line) + ": " +
                              shownText(message.c_str()));
}

// A file that parsed loads on: libxml2's errors were recoverable.
void reportXmlMessages(const XmlMessages& messages, bool parsed) {
    for (const std::string& line : messages.lines) {
        if (parsed)
            qvreport::notice(QV_ERR_MODEL, false, "SCL warning: %s\n", line.c_str());
        else
            qvreport::failure(QV_ERR_MODEL, "SCL parse error: %s\n", line.c_str());
    }
}

// libxml2 sets up its own globals on first use, and that set-up must not
// run in two threads at once.
void initXmlOnce() {
    static std::once_flag initialized;
    std::call_once(initialized, xmlInitParser);
}

}  // namespace

bool isReadableFile(const char* file, long* size) {
    const int fd = open(file, O_RDONLY);
    struct stat info;
    int reason = errno;
    if (fd >= 0) {
        reason = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode) ? EISDIR : 0;
        close(fd);
        if (reason == 0) {
            *size = static_cast<long>(info.st_size);
            return true;
        }
    }
    qvreport::failure(QV_ERR_MODEL, "Cannot read %s: %s\n", shownText(file).c_str(),
                      std::strerror(reason));
    return false;
}

// Parses the file in the encoding it declares or marks (UTF-8 with or
// without a byte order mark, UTF-16, ISO-8859-x, ...); the tree holds UTF-8.
// No DTD is loaded, no entity is substituted and no network is used.
// Errors come through this thread's structured handler (libxml2 keeps the
// handler per thread), also those raised outside the parser context such as
// encoding conversion; the thread's own handler is put back afterwards.
xmlDocPtr parseFile(const char* file) {
    initXmlOnce();
    xmlParserCtxtPtr context = xmlNewParserCtxt();
    if (context == nullptr) return nullptr;
    xmlStructuredErrorFunc savedHandler = xmlStructuredError;
    void* savedContext = xmlStructuredErrorContext;
    XmlMessages messages{file, {}};
    xmlSetStructuredErrorFunc(&messages, collectXmlError);
    xmlDocPtr doc = xmlCtxtReadFile(context, file, nullptr, XML_PARSE_NOBLANKS | XML_PARSE_NONET);
    xmlSetStructuredErrorFunc(savedContext, savedHandler);
    xmlFreeParserCtxt(context);
    reportXmlMessages(messages, doc != nullptr);
    return doc;
}

std::string elementText(xmlNodePtr element) {
    return nodeListText(element->doc, element->children);
}

Attribute::Attribute(xmlNodePtr element, const char* name, std::size_t limit)
    : element_(element), name_(name) {
    for (xmlAttrPtr attr = element->properties; attr != nullptr; attr = attr->next) {
        if (xmlStrcmp(attr->name, BAD_CAST name) == 0) {
            present_ = true;
            text_ = nodeListText(element->doc, attr->children, limit);
            break;
        }
    }
}

bool Attribute::required() const {
    if (present_) return true;
    qvreport::failure(QV_ERR_MODEL, "SCL error: %s without attribute \"%s\"\n",
                      reinterpret_cast<const char*>(element_->name), name_);
    return false;
}

}  // namespace qvaddied
