// Placeholder device hooks for use without a device: a fixed 4 x 1 x 4 layout and
// two checks that accept everything and hand their values back.
#include "tables/tables.h"

namespace vex::tables {

void define_check_hooks(nb::module_& m) {
    m.def("fake_rf_layout", []() { return nb::make_tuple(4, 1, 4); },
          "Layout of a 16-channel device: 4 boards, 1 IC per board, 4 channels per IC.");
    m.def("fake_check",
          [](nb::handle, nb::handle b, nb::handle c, nb::handle d) {
              return vex::py::ret_data(nb::make_tuple(b, c, d));
          },
          vex::py::arg("a"), vex::py::arg("b"), vex::py::arg("c"), vex::py::arg("d"),
          "Beam check that accepts everything: RetType(data=(b, c, d)).");
    m.def("fake_ic_check",
          [](nb::handle, nb::handle, nb::handle c) { return vex::py::ret_data(c); },
          vex::py::arg("a"), vex::py::arg("b"), vex::py::arg("c"),
          "IC gain check that accepts everything: RetType(data=c).");
}

}  // namespace vex::tables
