"""Demonstration of the table manager: for now, the module's vocabulary."""
import vexcore.qrvdev.QRVTableManager as tm


def main():
    print("vexcore table manager:", tm.__file__)
    for enum_cls in (tm.BTModeFilter, tm.BTSetOption, tm.BTField, tm.BTBeamField, tm.AAKitField):
        members = ", ".join("%s=%r" % (name, member.value) for name, member in enum_cls.__members__.items())
        print("  %s: %s" % (enum_cls.__name__, members))
    print("  fake_rf_layout():", tm.fake_rf_layout())
    print("  moss_cali DR:", tm.moss_cali["DR"])


if __name__ == "__main__":
    main()
