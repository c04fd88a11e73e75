// Placeholder device hooks for use without a device: a fixed 4 x 1 x 4 layout and
// two checks that accept everything and hand their values back.
#include "tables/tables.h"

namespace vex::tables {

void define_check_hooks(nb::module_& m) {
    using vex::py::arg;
    using vex::py::def_function;
    def_function(m, "fake_rf_layout", []() { return nb::make_tuple(4, 1, 4); });
    def_function(
        m, "fake_check",
        [](nb::handle, nb::handle b, nb::handle c, nb::handle d) {
            return vex::py::ret_data(nb::make_tuple(b, c, d));
        },
        arg("a"), arg("b"), arg("c"), arg("d"));
    def_function(
        m, "fake_ic_check", [](nb::handle, nb::handle, nb::handle c) { return vex::py::ret_data(c); }, arg("a"),
        arg("b"), arg("c"));
}

}  // namespace vex::tables
