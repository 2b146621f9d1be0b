// The SCL reader: readICD checks the file and walks its root, and the
// instance section (IEDs, logical devices and nodes, data sets and their
// members, instance values) goes into the model's tables in document order.
#include <algorithm>
#include <cstring>
#include <string>

#include "internal/qvtexts.h"
#include "internal/qvreport.h"
#include "model.h"
#include "scl_xml.h"

namespace qvaddied {

namespace {

// Where the walk is: the IED, LD inst and LN name of the elements below.
struct Place {
    int ied;
    const char* ld;
    const char* ln;
};

void assignCut(std::string& dst, const char* src, std::size_t width) {
    dst.assign(src, cutLength(src, std::strlen(src), width));
}

int addDAValList(Model& model, const Place& at, const char* doName, const char* doDesc,
                 const char* daName, const char* val) {
    char reference[sizeof(DATable::daName_nofc)];
    if (!formatName(reference, sizeof reference, "instance value name", "%s/%s$%s$%s", at.ld,
                    at.ln, doName, daName))
        return -1;
    DaValue& value = appendRecord(model.gDaValueVector);
    value.ied = at.ied;
    value.daName = reference;
    assignCut(value.daVal, val, 127);
    assignCut(value.doDesc, doDesc != nullptr ? doDesc : "", 127);
    return 0;
}

// Copies p_source into p_result (resultSize bytes, always terminated) with
// every p_seach replaced by p_repstr; returns the number of replacements.
int str_replace(char* p_result, std::size_t resultSize, const char* p_source, const char* p_seach,
                const char* p_repstr) {
    if (resultSize == 0) return 0;
    const std::size_t searchLength = std::strlen(p_seach);
    const std::size_t replacementLength = std::strlen(p_repstr);
    std::size_t used = 0;
    int replaced = 0;
    // Appends up to n bytes, leaving room for the terminator.
    auto append = [&](const char* text, std::size_t n) {
        const std::size_t room = resultSize - 1 - used;
        if (n > room) n = room;
        std::memcpy(p_result + used, text, n);
        used += n;
    };
    const char* rest = p_source;
    const char* found;
    while (searchLength > 0 && (found = std::strstr(rest, p_seach)) != nullptr) {
        append(rest, static_cast<std::size_t>(found - rest));
        append(p_repstr, replacementLength);
        rest = found + searchLength;
        ++replaced;
    }
    append(rest, std::strlen(rest));
    p_result[used] = '\0';
    return replaced;
}

int readInstanceChildren(Model& model, xmlNodePtr parent, const Place& at, const char* path,
                         const char* doDesc);

// A "DAI": one instance value per "Val" child.
int readDai(Model& model, xmlNodePtr dai, const Place& at, const char* path, const char* doDesc) {
    Attribute name(dai, "name");
    if (!name.required()) return -1;
    return forEachChild(dai, "Val", [&](xmlNodePtr val) {
        return addDAValList(model, at, path, doDesc, name.text(), elementText(val).c_str());
    });
}

int SDI_parse(Model& model, xmlNodePtr curNode, const Place& at, const char* doStartName,
              const char* doDesc) {
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s$%s", doStartName, name.text()))
        return -1;
    return readInstanceChildren(model, curNode, at, path, doDesc);
}

// The "SDI" and "DAI" children of a "DOI" or "SDI" whose path is `path`.
int readInstanceChildren(Model& model, xmlNodePtr parent, const Place& at, const char* path,
                         const char* doDesc) {
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "SDI")) {
            result = SDI_parse(model, child, at, path, doDesc);
        } else if (isElement(child, "DAI")) {
            result = readDai(model, child, at, path, doDesc);
        }
        if (result != 0) return -1;
    }
    return 0;
}

int readDaVal(Model& model, xmlNodePtr curNode, const Place& at, const char* doDesc) {
    Attribute name(curNode, "name");
    if (!name.required()) return -1;
    char path[kPathSize];
    if (!formatName(path, sizeof path, "data object path", "%s", name.text())) return -1;
    return readInstanceChildren(model, curNode, at, path, doDesc);
}

// One "FCDA" of the data set `dsName`; its prefix is part of the member
// reference only when the load keeps prefixes.
int readFcda(Model& model, xmlNodePtr fcda, const char* dsName, int ied) {
    Attribute ldInst(fcda, "ldInst"), prefix(fcda, "prefix"), lnClass(fcda, "lnClass"),
        lnInst(fcda, "lnInst"), doName(fcda, "doName"), daName(fcda, "daName"), fc(fcda, "fc");
    if (!ldInst.required() || !lnClass.required() || !doName.required() || !fc.required() ||
        !distinctWhenCut(model, "LN class", lnClass.text(), sizeof(DataSetSub::lnClass) - 1) ||
        !distinctWhenCut(model, "FC", fc.text(), sizeof(DataSetSub::fc) - 1))
        return -1;
    DataSetSub& sub = appendRecord(model.gdsSubVector);
    sub.ied = ied;
    copyText(sub.dsName, dsName);
    copyText(sub.ldInst, ldInst.text());
    copyText(sub.lnClass, lnClass.text());
    copyText(sub.lnInst, lnInst.text());
    copyText(sub.doName, doName.text());
    copyText(sub.daName, daName.text());
    copyText(sub.fc, fc.text());
    const char* lnPrefix = model.lnPrefix ? prefix.text() : "";
    char reference[kPathSize];
    const bool formed =
        sub.daName[0] != '\0'
            ? formatName(reference, sizeof reference, "member reference", "%s/%s%s%s$%s$%s$%s",
                         sub.ldInst, lnPrefix, sub.lnClass, sub.lnInst, sub.fc, sub.doName,
                         sub.daName)
            : formatName(reference, sizeof reference, "member reference", "%s/%s%s%s$%s$%s",
                         sub.ldInst, lnPrefix, sub.lnClass, sub.lnInst, sub.fc, sub.doName);
    if (!formed) return -1;
    str_replace(sub.fcdaName, sizeof sub.fcdaName, reference, ".", "$");
    return 0;
}

int readDataSet(Model& model, xmlNodePtr dataSet, const Place& at) {
    Attribute name(dataSet, "name"), desc(dataSet, "desc");
    if (!name.required()) return -1;
    DataSet& ds = appendRecord(model.gdsVector);
    ds.ied = at.ied;
    copyText(ds.name, name.text());
    copyText(ds.ldInst, at.ld);
    copyText(ds.desc, desc.text());
    const std::string dsName = ds.name;  // the table grows below
    return forEachChild(dataSet, "FCDA", [&](xmlNodePtr fcda) {
        return readFcda(model, fcda, dsName.c_str(), at.ied);
    });
}

int readLnInfo(Model& model, xmlNodePtr cur, const Place& at) {
    for (xmlNodePtr child = cur->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "DataSet")) {
            result = readDataSet(model, child, at);
        } else if (isElement(child, "DOI")) {
            Attribute desc(child, "desc");
            result = readDaVal(model, child, at, desc.text());
        }
        if (result != 0) return -1;
    }
    return 0;
}

// One "LN0" or "LN" of the logical device at index `ldIndex`.
int readLogicalNode(Model& model, xmlNodePtr node, std::size_t ldIndex) {
    Attribute prefix(node, "prefix"), inst(node, "inst"), lnClass(node, "lnClass"),
        lnType(node, "lnType", kIdTextLimit);
    // LN0 has no instance number; every other logical node has one.
    if ((!isElement(node, "LN0") && !inst.required()) || !lnClass.required() || !lnType.required())
        return -1;
    LN ln{};
    const bool named = model.lnPrefix ? formatName(ln.name, sizeof ln.name, "LN name", "%s%s%s",
                                                   prefix.text(), lnClass.text(), inst.text())
                                      : formatName(ln.name, kClassInstNameSize, "LN name", "%s%s",
                                                   lnClass.text(), inst.text());
    if (!named) return -1;
    ln.prefix = prefix.text();
    ln.type = lnType.text();
    LD& ld = model.ldVector[ldIndex];
    ld.lnVector.push_back(ln);
    const std::string ldName = ld.name;  // the table grows below
    return readLnInfo(model, node, Place{ld.ied, ldName.c_str(), ln.name});
}

int readLD(Model& model, xmlNodePtr server, int ied) {
    return forEachChild(server, "LDevice", [&](xmlNodePtr lDevice) {
        Attribute inst(lDevice, "inst");
        if (!inst.required()) return -1;
        LD& ld = appendRecord(model.ldVector);
        ld.ied = ied;
        copyText(ld.name, inst.text());
        const std::size_t index = model.ldVector.size() - 1;
        for (xmlNodePtr child = lDevice->children; child != nullptr; child = child->next) {
            if ((isElement(child, "LN0") || isElement(child, "LN")) &&
                readLogicalNode(model, child, index) != 0)
                return -1;
        }
        return 0;
    });
}

int readIED(Model& model, xmlNodePtr cur, int ied) {
    return forEachChild(cur, "AccessPoint", [&](xmlNodePtr accessPoint) {
        return forEachChild(accessPoint, "Server",
                            [&](xmlNodePtr server) { return readLD(model, server, ied); });
    });
}

// The root's "IED" children (only the one the model asks for, when it names
// one) and "DataTypeTemplates" children.
int readSclChildren(Model& model, xmlNodePtr root) {
    for (xmlNodePtr child = root->children; child != nullptr; child = child->next) {
        int result = 0;
        if (isElement(child, "IED")) {
            Attribute name(child, "name");
            if (!name.required()) return -1;
            model.fileIeds.emplace_back(name.text());
            if (model.iedFilter != nullptr && std::strcmp(name.text(), model.iedFilter) != 0)
                continue;
            if (!distinctWhenCut(model, "IED name", name.text(), sizeof(IED::name) - 1)) return -1;
            copyText(appendRecord(model.giedVector).name, name.text());
            result = readIED(model, child, static_cast<int>(model.giedVector.size() - 1));
        } else if (isElement(child, "DataTypeTemplates")) {
            result = readDataTypeTemplates(model, child);
        }
        if (result != 0) return -1;
    }
    return 0;
}

// The root of a parsed file: 0 when it is "SCL" and its children were read.
int readRoot(Model& model, xmlDocPtr doc) {
    xmlNodePtr root = xmlDocGetRootElement(doc);
    if (root == nullptr) {
        qvreport::failure(QV_ERR_MODEL, "%s", qvtext::kRootEmpty);
        return -1;
    }
    if (xmlStrcmp(root->name, BAD_CAST "SCL") != 0) {
        qvreport::failure(QV_ERR_MODEL, "%s", qvtext::kRootNotScl);
        return -1;
    }
    if (readSclChildren(model, root) != 0) return -1;
    if (model.iedFilter != nullptr && model.giedVector.empty()) {
        std::string has;
        for (const std::string& ied : model.fileIeds) has += (has.empty() ? "" : ", ") + ied;
        qvreport::failure(QV_ERR_MODEL, "SCL error: no IED named \"%s\" in %s; it has: %s\n",
                          shownText(model.iedFilter).c_str(), shownText(model.file).c_str(),
                          shownText(has.c_str()).c_str());
        return -1;
    }
    return 0;
}

}  // namespace

int readICD(Model& model) {
    if (model.file == nullptr) {
        qvreport::failure(QV_ERR_MODEL, "SCL error: no file name given\n");
        return -1;
    }
    long size = 0;
    if (!isReadableFile(model.file, &size)) return -1;
    xmlDocPtr doc = parseFile(model.file);
    if (doc == nullptr) {
        qvreport::failure(QV_ERR_MODEL, qvtext::kXmlParseFailed, shownText(model.file).c_str());
        return -1;
    }
    // How many data attributes the model of this file may have.
    model.attributeAllowance = std::max(kMinAttributeAllowance, size / kFileBytesPerAttribute);
    const int result = readRoot(model, doc);
    xmlFreeDoc(doc);
    return result;
}

}  // namespace qvaddied
