"""What the MIB of the traps numbers."""
import pathlib
import re

#: Type of a report to the names of its traps, of a bad state and of OK, each with the last number of
#: its OID.
TABLE = {
    "Cap_RFInput_TunerConfedNotLocked": (("qhedTunerMissingSignalLock", 1),
                                         ("qhedTunerHasSignalLock", 2)),
    "Cap_cam_CardNotDescrambling": (("qhedCamDescramblingError", 3), ("qhedCamDescramblingOk", 4)),
    "Cap_TSState_Overload": (("qhedOutputOverloadError", 5), ("qhedOutputOverloadOk", 6)),
}


def product(folder):
    """The arc of the product in the MIB in the folder: an integrator sets another number.

    The traps are below 0, their variables below 2."""
    text = (pathlib.Path(folder) / "HALVO-QHED-MIB.txt").read_text()
    number = re.search(r"enterprises\(1\) (\d+) }", text)[1]
    return f"1.3.6.1.4.1.{number}.3.1.10"
