// The areas the qmtnm tool knows: one entry per area, describing its settings record field by
// field, so that adding an area to the tool is adding one entry.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cli {

enum class ftype : uint8_t {
    i32,    // int32_t, decimal
    u32,    // uint32_t, decimal
    ipv4,   // struct in_addr, dotted quad
    str,    // char[size], NUL-terminated
    secret, // char[size], NUL-terminated; shown masked unless asked for
    mac,    // six raw bytes, shown as xx:xx:xx:xx:xx:xx
    list,   // int32_t mode of a white or black list, shown and given as "white" or "black"
    ranges, // the IP filter's rule slots, shown as "rule = BEGIN-END" for each one in use
};

struct field {
    const char *name;
    ftype type;
    uint16_t offset;
    uint16_t size; // bytes of the member (capacity for str)
};

struct area {
    const char *name;     // short name: "qos"
    const char *instance; // instance name: "qos_lcl"
    uint32_t id;
    size_t record_size;
    const field *fields;
    size_t field_count;
    uint32_t stored_id; // the instance whose get gives the stored record a set starts from
    bool settable;      // false for the areas that only report
    bool text_set;      // a set takes one text argument as it is (ethmac), not field=value
    // Words of a set beyond the fields (the station's wps=pbc): true if name is one and value
    // fits, with *known set to whether name is one.
    bool (*word)(void *record, const char *name, const char *value, bool *known) = nullptr;
    const char *words = nullptr; // those words as the shell completion offers them
};

// The area called name (short or instance name), or null.
const area *find_area(const char *name);
const area *areas_begin();
const area *areas_end();
// Parses text into the field of record; false, with a message on stderr, if it does not fit.
bool parse_value(void *record, const field &f, const char *text);
// The field of a called name (len characters of it), or null.
const field *find_field(const area &a, const char *name, size_t len);
// Short name of the area whose instance id is id, or null.
const char *area_name_by_id(uint32_t id);

} // namespace cli
