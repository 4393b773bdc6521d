"""The configuration files of this machine, as a configuration for the store."""
import pathlib
import re
import stat

ETC = pathlib.Path("/etc")
MOST_BYTES = 1500
# The form of a component of a key; the file of a value has the reserved name.
_COMPONENT = re.compile(r"(?!data~?$)[\w-][\w.+-]*$", re.ASCII)


def _is_for_everybody(path):
    """Whether the path is, or links to, a file that every user of the machine may read."""
    file = path.resolve(strict=True)
    mode = file.stat().st_mode
    return (stat.S_ISREG(mode) and mode & stat.S_IROTH
            and all(folder.stat().st_mode & stat.S_IXOTH
                    for folder in {*path.parents, *file.parents}))


def read(count):
    """Up to `count` small text files below /etc that are not secret: key to text, in key order."""
    files = {}
    for path in sorted(ETC.rglob("*")):
        if len(files) == count:
            break
        if not all(_COMPONENT.match(part) for part in path.relative_to(ETC).parts):
            continue
        try:
            if _is_for_everybody(path) and 0 < path.stat().st_size <= MOST_BYTES:
                files[f"/{path.relative_to(ETC)}"] = path.read_bytes().decode("ascii")
        except (OSError, RuntimeError, UnicodeDecodeError):
            continue
    return files
