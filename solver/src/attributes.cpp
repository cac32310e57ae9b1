// attributes.cpp: the table of attributes, found by name.
#include "attributes.h"

#include "failure.h"

#include <iterator>
#include <string_view>
#include <unordered_map>

namespace store {

namespace {

constexpr TRVattrinfo kTable[] = {
#define TARVO_ROW(name, kind, type, settable) {#name, kind, type, settable},
    TARVO_ATTRIBUTES(TARVO_ROW)
#undef TARVO_ROW
};

const char *typenames[] = {"character", "integer", "double", "string"};

} // namespace

const TRVattrinfo *attributes() {
    return kTable;
}
int attributecount() {
    return static_cast<int>(std::size(kTable));
}

int findattribute(const char *name) {
    static const auto *index = [] {
        auto *made = new std::unordered_map<std::string_view, int>;
        for (int i = 0; i < attributecount(); i++)
            made->emplace(kTable[i].name, i);
        return made;
    }();
    if (!name)
        return -1;
    auto found = index->find(name);
    return found == index->end() ? -1 : found->second;
}

Attr requireattribute(const char *name, int type, bool ofelements, Access access) {
    int i = findattribute(name);
    if (i < 0)
        failf(TRV_ERROR_UNKNOWN_ATTRIBUTE, "there is no attribute '%.60s'", name ? name : "(null)");
    const TRVattrinfo &info = kTable[i];
    if ((info.kind != TRV_MODEL) != ofelements)
        failf(TRV_ERROR_ATTRIBUTE_KIND, "%s is an attribute of %s, not of %s", info.name, kindsname(info.kind),
              ofelements ? "elements" : kindsname(TRV_MODEL));
    if (access == Access::kWrite && !info.settable)
        failf(TRV_ERROR_ATTRIBUTE_KIND, "%s cannot be set", info.name);
    if (info.type != type)
        failf(TRV_ERROR_ATTRIBUTE_KIND, "%s is an attribute of type %s, not %s", info.name, typenames[info.type],
              type >= 0 && type <= TRV_STRING ? typenames[type] : "known");
    return static_cast<Attr>(i);
}

} // namespace store
