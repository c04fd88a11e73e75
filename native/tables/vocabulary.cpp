// The module's enumerations and the fixed calibration record of dual-polarization
// devices. The enumerations are made with Python's own enum API so that they are
// real Enum/Flag classes: aliases, flag combinations and iteration behave as any
// Python enum does.
#include "tables/tables.h"

#include <initializer_list>
#include <utility>

namespace vex::tables {
namespace {

using Member = std::pair<const char*, nb::object>;

nb::object make_enum(nb::module_& m, const char* base, const char* name, std::initializer_list<Member> members) {
    nb::list names;
    for (const auto& [key, value] : members) names.append(nb::make_tuple(key, value));
    nb::object enum_base = vex::py::global(vex::py::Name(base));
    nb::object cls = enum_base(name, names, nb::arg("module") = m.attr("__name__"), nb::arg("qualname") = name);
    m.attr(name) = cls;
    return cls;
}

nb::object I(long v) { return nb::int_(v); }

// Values of an Enum numbered from 0 in the order given.
void make_counted_enum(nb::module_& m, const char* name, std::initializer_list<const char*> keys) {
    nb::list names;
    long value = 0;
    for (const char* key : keys) names.append(nb::make_tuple(key, value++));
    static const vex::py::Name g_Enum{"Enum"};
    nb::object cls =
        vex::py::global(g_Enum)(name, names, nb::arg("module") = m.attr("__name__"), nb::arg("qualname") = name);
    m.attr(name) = cls;
}

nb::list floats(std::initializer_list<double> values) {
    nb::list out;
    for (double v : values) out.append(nb::float_(v));
    return out;
}

nb::list ints(std::initializer_list<long> values) {
    nb::list out;
    for (long v : values) out.append(nb::int_(v));
    return out;
}

nb::dict arm(double com_low, double com_high, double ele) {
    nb::dict d;
    d["OFFSET"] = ints({0, 0, 0, 0});
    d["COMDR"] = floats({com_low, com_high});
    d["ELEDR"] = nb::float_(ele);
    return d;
}

nb::dict polarized(nb::handle horizon, nb::handle vertical) {
    nb::dict d;
    d["HORIZON"] = horizon;
    d["VERTICAL"] = vertical;
    return d;
}

}  // namespace

void define_beam_enums(nb::module_& m) {
    make_enum(m, "Flag", "BTModeFilter", {{"TX", I(1)}, {"RX", I(2)}, {"ALL", I(3)}});
    // UI_IMPORT shares VALIDATE's value and so becomes its alias.
    make_enum(m, "Flag", "BTSetOption",
              {{"VALIDATE", I(1)},
               {"GET", I(2)},
               {"SAVE", I(4)},
               {"REPLACE_ALL", I(8)},
               {"UI_IMPORT", I(1)},
               {"UI_EXPORT", I(3)},
               {"UI_SAVE_UPSERT", I(5)},
               {"UI_SAVE_REPLACE", I(13)}});
    // _version is a real member: the beam code reads BTField._version.value.
    make_enum(m, "Enum", "BTField",
              {{"_version", nb::str("2.0.0")},
               {"VERSION", I(0)},
               {"SN", I(1)},
               {"DEV_TYPE", I(2)},
               {"FREQ", I(3)},
               {"AAKIT_NAME", I(4)},
               {"TX", I(5)},
               {"RX", I(6)}});
    make_counted_enum(m, "BTBeamField",
                      {"beam_description", "beam_type", "beam_config", "db", "theta", "phi", "channel_config",
                       "board_", "common_db", "channel_", "sw", "deg"});
}

void define_aakit_field(nb::module_& m) {
    make_counted_enum(
        m, "AAKitField",
        {"AAKIT_NAME", "DEV_TYPE", "TYPE", "SPACING", "STEERING_H", "STEERING_V", "OFFSET_TX", "OFFSET_RX"});
}

void define_moss_cali(nb::module_& m) {
    nb::dict dr;
    dr["TX"] = polarized(floats({-9.5, 5.0}), floats({-8.0, 7.0}));
    dr["RX"] = polarized(floats({-5.0, 10.0}), floats({-6.0, 9.0}));

    nb::dict tc;
    tc["TEMPADC"] = nb::int_(37);
    tc["HORIZON"] = ints({8, 3, 2, 11});
    tc["VERTICAL"] = ints({8, 3, 2, 11});

    nb::dict board;
    board["TC"] = tc;
    board["TX"] = polarized(arm(-9.5, -2.0, 7.0), arm(-8.0, -0.5, 7.5));
    board["RX"] = polarized(arm(-5.0, 2.5, 4.0), arm(-6.0, 1.5, 5.5));

    nb::dict cali;
    cali["VER"] = "3.0.0";
    cali["SN"] = "K5120R077-28";
    cali["FCENTER"] = nb::int_(28);
    cali["DR"] = dr;
    cali["BOARD_1"] = board;
    m.attr("moss_cali") = cali;
}

}  // namespace vex::tables
