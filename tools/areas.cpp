#include "areas.h"

#include "qmtnm.h"

#include <cstring>
#include <iterator>

namespace cli {
namespace {

#define CLI_FIELD(rec, member, type)                                                               \
    field {                                                                                        \
#member, ftype::type, offsetof(rec, member), sizeof(rec::member)                           \
    }
#define CLI_AREA(name, id, rec, fields)                                                            \
    area {                                                                                         \
        name, name "_lcl", id, sizeof(rec), fields, std::size(fields)                              \
    }

const field qos_fields[] = {
    CLI_FIELD(qmtnm_qos_cfg, enable, i32),
    CLI_FIELD(qmtnm_qos_cfg, dscp, i32),
};

const area all_areas[] = {
    CLI_AREA("qos", QMTNM_ID_QOS, qmtnm_qos_cfg, qos_fields),
};

// Short names of every instance, by id, for decoding error codes.
const char *const instance_names[QMTNM_ID_COUNT] = {
    "br",         "ethtype", "ethmac",   "wan",    "lan",   "ddns",     "pppoe",
    "upnp",       "bonjour", "ipfilter", nullptr,  "qos",   "wanflash", "doscan",
    "scanresult", "sta",     "ap",       "stapin", "appin",
};

} // namespace

const area *areas_begin() {
    return std::begin(all_areas);
}
const area *areas_end() {
    return std::end(all_areas);
}

const area *find_area(const char *name) {
    for (const area &a : all_areas)
        if (!strcmp(name, a.name) || !strcmp(name, a.instance))
            return &a;
    return nullptr;
}

const char *area_name_by_id(uint32_t id) {
    return id < QMTNM_ID_COUNT ? instance_names[id] : nullptr;
}

} // namespace cli
