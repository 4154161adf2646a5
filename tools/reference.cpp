// Writes docs/reference.md from the registry of families in qmo_seq.h: every
// exported name, grouped by family, with its signature, member types,
// statuses and the family's description. Run by the `reference` target; the
// reference_up_to_date test fails when the checked-in file differs.
#define QMO_SEQ_API
#define QMO_SEQ_CORE_API
#include "qmo_seq.h"

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

namespace {

#define REF_STR_(...) #__VA_ARGS__
#define REF_STR(...) REF_STR_(__VA_ARGS__)

struct Family {
    std::string group, name, shape, statuses, doc;
    int partial = 0;
    std::vector<std::string> types, declarations;
};

std::vector<Family> families;

// A member's type: a suffix, or a pair written (first, second, first code).
std::string type_name(std::string t) {
    if (t.empty() || t[0] != '(') return t;
    const size_t comma = t.find(','), second = t.find(',', comma + 1);
    return t.substr(1, comma - 1) + "/" + t.substr(comma + 2, second - comma - 2);
}

#define REF_MEMBER_(a, t, ctype, code) REF_MEMBER_I_(QMO_SEQ_EXPAND a, t, ctype, code)
#define REF_MEMBER_I_(...) REF_MEMBER_II_(__VA_ARGS__)
#define REF_MEMBER_II_(family, shape, t, ctype, code)          \
    f.types.push_back(type_name(#t));                          \
    f.declarations.push_back(REF_STR(QMO_SEQ_DECLARE_##shape##_(family, t, ctype, code)));
#define REF_ROW_(family, shape, types, partial, statuses, doc)          \
    {                                                                   \
        Family f{group, #family, #shape, statuses, doc, int{partial}};  \
        types(REF_MEMBER_, (family, shape))                             \
        families.push_back(f);                                          \
    }
#define REF_GROUP_(g)                   \
    {                                   \
        const char *group = #g;         \
        QMO_SEQ_##g##_FAMILIES(REF_ROW_) \
    }

void collect() { QMO_SEQ_FAMILY_GROUPS(REF_GROUP_) }

// Every group is listed in both QMO_SEQ_FAMILY_GROUPS and QMO_SEQ_FAMILIES.
#define REF_COUNT_(...) +1
#define REF_COUNT_GROUP_(g) QMO_SEQ_##g##_FAMILIES(REF_COUNT_)
static_assert(0 QMO_SEQ_FAMILIES(REF_COUNT_) == 0 QMO_SEQ_FAMILY_GROUPS(REF_COUNT_GROUP_),
              "QMO_SEQ_FAMILY_GROUPS and QMO_SEQ_FAMILIES list different groups");

std::string title(const std::string &group) {
    std::string t;
    for (char c : group) t += c == '_' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    t[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(t[0])));
    return t;
}

// One declaration per line: the stringified expansion separates them by "; ".
std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> out;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(';', at);
        if (end == std::string::npos) end = text.size();
        std::string d = text.substr(at, end - at);
        while (!d.empty() && d.front() == ' ') d.erase(0, 1);
        if (!d.empty()) out.push_back(d + ";");
        at = end + 1;
    }
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT.md\n", argv[0]);
        return 2;
    }
    collect();
    std::string md;
    size_t names = 0;
    std::string body, group;
    for (const Family &f : families) {
        if (f.group != group) {
            group = f.group;
            body += "\n## " + title(group) + " (`QMO_SEQ_" + group + "_FAMILIES`)\n";
        }
        std::string doc = f.doc;
        doc[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(doc[0])));
        body += "\n### " + f.name + "\n\n" + doc + ".\n\n";
        body += "- shape: `" + f.shape + "`";
        if (f.types.size() > 1 || f.types[0] != "any") {
            body += "; member types:";
            for (const std::string &t : f.types) body += " " + t;
        }
        body += "\n- statuses besides 0, 11 and the operands': " + f.statuses + "\n";
        body += "- partial results: " + (f.partial ? "family code " + std::to_string(f.partial) : std::string("none")) +
                "\n\n```c\n";
        for (const std::string &d : f.declarations)
            for (const std::string &line : split(d)) {
                body += line + "\n";
                ++names;
            }
        body += "```\n";
    }
    md = "# qmo_seq reference\n\nGenerated from the registry of families in `include/qmo_seq.h` by "
         "`tools/reference.cpp`\n(`cmake --build build --target reference`); do not edit by hand. " +
         std::to_string(families.size()) + " families, " + std::to_string(names) +
         " declarations (the core's among them).\n" + body;
    FILE *out = std::fopen(argv[1], "wb");
    if (!out || std::fwrite(md.data(), 1, md.size(), out) != md.size() || std::fclose(out) != 0) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
