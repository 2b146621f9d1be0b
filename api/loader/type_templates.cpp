// The data type templates reader: logical node, data object, structured
// attribute and enumeration types copied into the model's type tables as
// written, without resolving one type against another (the expansion does).
#include "model.h"
#include "scl_xml.h"

namespace qvaddied {

namespace {

// Starts the next record of a type table with the element's "id".
template <typename Type>
Type* readTypeId(xmlNodePtr element, std::vector<Type>& table) {
    Attribute id(element, "id", kIdTextLimit);
    if (!id.required()) return nullptr;
    Type& type = appendRecord(table);
    type.id = id.text();
    return &type;
}

// A "DO" or "SDO": a name and the id of a DOType, both required.
template <typename Record>
int readNamedDataObject(xmlNodePtr element, std::vector<Record>& table) {
    Attribute name(element, "name"), type(element, "type", kIdTextLimit);
    if (!name.required() || !type.required()) return -1;
    Record& record = appendRecord(table);
    copyText(record.name, name.text());
    record.type = type.text();
    return 0;
}

int readLNodeType(Model& model, xmlNodePtr element) {
    LNodeType* lnType = readTypeId(element, model.lnTypeVector);
    if (lnType == nullptr) return -1;
    return forEachChild(element, "DO", [&](xmlNodePtr child) {
        return readNamedDataObject(child, lnType->doVector);
    });
}

int readDataAttribute(Model& model, xmlNodePtr element, DOType* doType) {
    Attribute name(element, "name"), bType(element, "bType"), type(element, "type", kIdTextLimit),
        fc(element, "fc");
    // An attribute row holds its fc in two characters, as a member does.
    if (!name.required() || !bType.required() || !fc.required() ||
        !distinctWhenCut(model, "FC", fc.text(), sizeof(DATable::fcName) - 1))
        return -1;
    DA& da = appendRecord(doType->daVector);
    copyText(da.name, name.text());
    copyText(da.bType, bType.text());
    da.type = type.text();
    copyText(da.fc, fc.text());
    return 0;
}

int readDOType(Model& model, xmlNodePtr element) {
    DOType* doType = readTypeId(element, model.doTypeVector);
    if (doType == nullptr) return -1;
    for (xmlNodePtr child = element->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DA")) {
            result = readDataAttribute(model, child, doType);
        } else if (isElement(child, "SDO")) {
            result = readNamedDataObject(child, doType->sdoVector);
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDAType(Model& model, xmlNodePtr element) {
    DAType* daType = readTypeId(element, model.daTypeVector);
    if (daType == nullptr) return -1;
    return forEachChild(element, "BDA", [&](xmlNodePtr child) {
        Attribute name(child, "name"), bType(child, "bType"), type(child, "type", kIdTextLimit);
        if (!name.required() || !bType.required()) return -1;
        BDA& bda = appendRecord(daType->bdaVector);
        copyText(bda.name, name.text());
        bda.type = type.text();
        copyText(bda.bType, bType.text());
        return 0;
    });
}

int readEnumType(Model& model, xmlNodePtr element) {
    EnumType* enumType = readTypeId(element, model.genumTypeVector);
    if (enumType == nullptr) return -1;
    return forEachChild(element, "EnumVal", [&](xmlNodePtr child) {
        EnumVal& enumVal = appendRecord(enumType->enumVector);
        Attribute ord(child, "ord");
        copyText(enumVal.ord, ord.text());
        copyText(enumVal.value, elementText(child).c_str());
        return 0;
    });
}

}  // namespace

int readDataTypeTemplates(Model& model, xmlNodePtr cur) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "LNodeType")) {
            result = readLNodeType(model, child);
        } else if (isElement(child, "DOType")) {
            result = readDOType(model, child);
        } else if (isElement(child, "DAType")) {
            result = readDAType(model, child);
        } else if (isElement(child, "EnumType")) {
            result = readEnumType(model, child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

}  // namespace qvaddied
