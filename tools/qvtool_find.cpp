// qvtool commands on the model: the listings of data sets, members and
// attributes, and find. Filters are exact; one that matches nothing gets the
// near names the store holds.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

#include "internal/qvwildcard.h"
#include "qvtool_model.h"

namespace qvtool {

namespace {

// The filter options of the listings, with the labels of their messages.
const std::vector<std::pair<std::string, const char*>>& filterOptions() {
    static const std::vector<std::pair<std::string, const char*>> options = {
        {"--ied", "IED"},        {"--ds", "data set"}, {"--ld", "LD"},
        {"--ln", "LN"},          {"--lnclass", "LN class"}, {"--lninst", "LN instance"},
        {"--do", "DO"},          {"--da", "DA"},       {"--fc", "FC"}};
    return options;
}

// Paths compare in one notation: members keep dots, attributes use '$'.
std::string dots(std::string path) {
    std::replace(path.begin(), path.end(), '$', '.');
    return path;
}

// What each filter option sees of a row: option -> value.
using Facets = std::map<std::string, std::string>;

Facets facetsOf(const DA& da, const Json& record) {
    const std::string ln = da.lnName;
    const std::string lnClass = lnClassOf(ln);
    const size_t classEnd = ln.rfind(lnClass) + lnClass.size();
    return {{"--ied", da.iedName},   {"--ld", da.ldName},          {"--ln", ln},
            {"--lnclass", lnClass},  {"--lninst", ln.substr(classEnd)},
            {"--do", dots(da.doName)}, {"--da", attributePath(record)}, {"--fc", da.fcName}};
}

Facets facetsOf(const DataSetSub& m) {
    return {{"--ied", m.iedName},     {"--ds", m.dsName},
            {"--ld", m.ldInst},       {"--ln", std::string(m.lnClass) + m.lnInst},
            {"--lnclass", m.lnClass}, {"--lninst", m.lnInst},
            {"--do", dots(m.doName)}, {"--da", dots(m.daName)},
            {"--fc", m.fc}};
}

// A row passes when each given filter equals its facet; a row without the
// facet (an attribute under --ds) does not.
bool passes(const Args& args, const Facets& facets) {
    for (const auto& option : filterOptions()) {
        const char* given = args.value(option.first);
        if (given == nullptr) continue;
        const auto facet = facets.find(option.first);
        const bool path = option.first == "--do" || option.first == "--da";
        if (facet == facets.end() || facet->second != (path ? dots(given) : given)) return false;
    }
    return true;
}

// Says which given filter names nothing among the rows' facets.
void explainNoMatch(const Args& args, const char* what, const std::vector<Facets>& rows) {
    std::vector<FilterCheck> checks;
    for (const auto& option : filterOptions()) {
        const char* given = args.value(option.first);
        if (given == nullptr) continue;
        const bool path = option.first == "--do" || option.first == "--da";
        FilterCheck check{option.second, path ? dots(given) : given, {}};
        for (const Facets& facets : rows) {
            const auto facet = facets.find(option.first);
            if (facet != facets.end()) check.known.push_back(facet->second);
        }
        checks.push_back(check);
    }
    explainNoMatch(what, checks);
}

// The option names of the filters, for the command table.
std::vector<std::string> filterNames(std::initializer_list<const char*> leftOut = {}) {
    std::vector<std::string> names;
    for (const auto& option : filterOptions()) {
        if (std::find(leftOut.begin(), leftOut.end(), option.first) == leftOut.end())
            names.push_back(option.first);
    }
    return names;
}

bool anyFilter(const Args& args) {
    for (const auto& option : filterOptions()) {
        if (args.has(option.first)) return true;
    }
    return false;
}

bool allAttributes(std::vector<DA>* attributes) {
    return fetchList(attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, nullptr, nullptr,
                     nullptr, nullptr, nullptr);
}

bool allMembers(std::vector<DataSetSub>* members) {
    return fetchList(members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN, nullptr,
                     nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

std::vector<Facets> attributeFacets(const std::vector<DA>& attributes) {
    std::vector<Facets> rows;
    for (const DA& da : attributes) rows.push_back(facetsOf(da, toJson(da)));
    return rows;
}

// ---- listings -----------------------------------------------------------------

int runDataSets(const Args& args) {
    std::vector<DataSet> sets;
    if (!openRealStore() || !fetchList(&sets, zq_getAllDataSetsNum, zq_getAllDataSetsN))
        return kFailed;
    return printRows(args, {{"IED", "iedName"}, {"DATA SET", "name"}, {"LD", "ldInst"},
                            {"DESCRIPTION", "desc"}},
                     toJsonRows(sets));
}

int runMembers(const Args& args) {
    std::string doName, daName, lnClass, lnInst;
    const bool lnGiven = args.has("--ln");
    if (lnGiven && (args.has("--lnclass") || args.has("--lninst") ||
                    !splitLnName(args.value("--ln"), &lnClass, &lnInst)))
        return usageError("members: --ln takes a class and instance (e.g. MMXU1) and goes "
                          "without --lnclass and --lninst");
    std::vector<DataSetSub> members;
    if (!openRealStore() ||
        !fetchList(&members, zq_getDataSetSubsByParamsNum, zq_getDataSetSubsByParamsN,
                   args.value("--ied"), args.value("--ds"), args.value("--ld"),
                   lnGiven ? lnClass.c_str() : args.value("--lnclass"),
                   lnGiven ? lnInst.c_str() : args.value("--lninst"),
                   pathFilter(args, "--do", '.', &doName), pathFilter(args, "--da", '.', &daName),
                   args.value("--fc")))
        return kFailed;
    if (members.empty() && anyFilter(args)) {
        std::vector<DataSetSub> all;
        if (!allMembers(&all)) return kFailed;
        std::vector<Facets> rows;
        for (const DataSetSub& m : all) rows.push_back(facetsOf(m));
        explainNoMatch(args, "member", rows);
        return kFailed;
    }
    return printRows(args, {{"IED", "iedName"}, {"DATA SET", "dsName"}, {"LD", "ldInst"},
                            {"LNCLASS", "lnClass"}, {"LNINST", "lnInst"}, {"DO", "doName"},
                            {"DA", "daName"}, {"FC", "fc"}, {"REFERENCE", "fcdaName"}},
                     toJsonRows(members));
}

int runAttrs(const Args& args) {
    std::string doName;
    std::vector<DA> attributes;
    if (!openRealStore() ||
        !fetchList(&attributes, zq_getDAsByParamsNum, zq_getDAsByParamsN, args.value("--ied"),
                   args.value("--ld"), args.value("--ln"), pathFilter(args, "--do", '$', &doName),
                   args.value("--fc")))
        return kFailed;
    // --lnclass and --da have no column of their own: they are read from
    // the node name and the reference.
    Json rows = Json::array();
    for (const DA& da : attributes) {
        const Json record = toJson(da);
        if (passes(args, facetsOf(da, record))) rows.push_back(record);
    }
    if (rows.empty() && anyFilter(args)) {
        explainNoAttribute(args);
        return kFailed;
    }
    return printRows(args, {{"REFERENCE", "daName"}, {"FC", "fcName"}, {"TYPE", "valueType"},
                            {"VALUE", "value"}, {"DESCRIPTION", "doDesc"}},
                     rows);
}

// ---- find -----------------------------------------------------------------------

// A reference in one notation and case: dots as '$', lower case.
std::string folded(std::string ref) {
    for (char& c : ref) c = c == '.' ? '$' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ref;
}

Json foundRow(const char* table, const std::string& ref, const Facets& facets,
              const std::string& desc) {
    const auto ds = facets.find("--ds");
    return {{"table", table},
            {"reference", ref},
            {"iedName", facets.at("--ied")},
            {"dsName", ds == facets.end() ? "" : ds->second},
            {"fc", facets.at("--fc")},
            {"desc", desc}};
}

int runFind(const Args& args) {
    // Both notations name one reference; a pattern without wildcards
    // matches anywhere in the reference; case does not count.
    std::string pattern = folded(args.positional[0]);
    if (pattern.find_first_of("*?") == std::string::npos) pattern = "*" + pattern + "*";
    const auto matches = [&](const char* ref) {
        return qvtext::wildcardMatch(pattern.c_str(), folded(ref).c_str());
    };
    std::vector<DA> attributes;
    std::vector<DataSetSub> members;
    if (!openRealStore() || !allAttributes(&attributes) || !allMembers(&members)) return kFailed;
    Json rows = Json::array();
    std::vector<Facets> all = attributeFacets(attributes);
    for (size_t i = 0; i < attributes.size(); ++i) {
        if (matches(attributes[i].daName) && passes(args, all[i]))
            rows.push_back(foundRow("DA", attributes[i].daName, all[i], attributes[i].doDesc));
    }
    for (const DataSetSub& m : members) {
        all.push_back(facetsOf(m));
        if (matches(m.fcdaName) && passes(args, all.back()))
            rows.push_back(foundRow("DataSetSub", m.fcdaName, all.back(), ""));
    }
    if (rows.empty()) {
        if (anyFilter(args))
            explainNoMatch(args, "reference", all);
        else
            complain("no reference matches %s", args.positional[0].c_str());
        return kFailed;
    }
    return printRows(args, {{"REFERENCE", "reference"}, {"TABLE", "table"}, {"DATA SET", "dsName"},
                            {"FC", "fc"}, {"DESCRIPTION", "desc"}},
                     rows);
}

}  // namespace

void explainNoAttribute(const Args& args) {
    std::vector<DA> attributes;
    if (allAttributes(&attributes)) explainNoMatch(args, "attribute", attributeFacets(attributes));
}

const std::vector<Command>& queryCommands() {
    static const std::vector<Command> commands = {
        {"datasets", "datasets [--json]", "list the data sets of the loaded models",
         "JSON fields: iedName, name, ldInst, desc.\n", {}, {"--json"}, 0, 0, runDataSets},
        {"members", "members [--ied --ds --ld --ln|--lnclass --lninst --do --da --fc] [--json]",
         "list data set members, filtered",
         "Each option takes a value and keeps the members whose column equals it\n"
         "exactly (an empty value matches empty columns):\n"
         "  --ied IED  --ds DATASET  --ld LDINST  --ln LN (class and instance, e.g. MMXU1)\n"
         "  --lnclass CLASS  --lninst INST  --do DO  --da DA  --fc FC\n"
         "Paths may be written with dots or '$': --do PhV.phsA, --da cVal$mag$f.\n"
         "Filters that match nothing: exit code 1, with the near names the store has.\n"
         "JSON fields: fcdaName, iedName, dsName, ldInst, lnClass, lnInst, doName,\n"
         "daName, fc.\n",
         filterNames(), {"--json"}, 0, 0, runMembers},
        {"attrs", "attrs [--ied --ld --ln --lnclass --do --da --fc] [--json]",
         "list data attributes of the model, filtered",
         "Each option takes a value and keeps the attributes whose column equals it:\n"
         "  --ied IED  --ld LDINST  --ln LN (class and instance, e.g. MMXU1)\n"
         "  --lnclass CLASS (MMXU)  --do DO (data object path, PhV.phsA or PhV$phsA)\n"
         "  --da DA (attribute path below the DO, mag.f or mag$f)  --fc FC\n"
         "Filters that match nothing: exit code 1, with the near names the store has\n"
         "(attrs --ln MMXU: no LN \"MMXU\"; did you mean MMXU1?).\n"
         "VALUE is the value text of the model file, not the live value.\n"
         "JSON fields: daName, iedName, ldName, lnName, doName, fcName, value,\n"
         "valueType, doDesc.\n",
         filterNames({"--ds", "--lninst"}), {"--json"}, 0, 0, runAttrs},
        {"find", "find PATTERN [--ied --ds --ld --ln --lnclass --lninst --do --da --fc] [--json]",
         "find references of attributes and data set members",
         "PATTERN matches whole references, '*' any run of characters, '?' one, case\n"
         "ignored, dots read as '$'; without a wildcard it matches anywhere in the\n"
         "reference. The filters are those of members and attrs (--ds keeps members\n"
         "only). Exit code 1 when nothing matches.\n"
         "JSON fields: table (DA or DataSetSub), reference, iedName, dsName, fc, desc.\n",
         filterNames(), {"--json"}, 1, 1, runFind},
    };
    return commands;
}

}  // namespace qvtool
