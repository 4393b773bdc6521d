"""Message classes and method tables, generated from the proto files at run time."""
import importlib
import subprocess
import sys

from google.protobuf import descriptor_pb2

from kit.paths import PROTO_ROOTS, program


class Protos:
    """The modules that protoc generated from all proto files.

    state: state monitoring; configuration: the configuration store; tree: the observer tree's
    wire; introspection: log levels.
    """

    def __init__(self, out, is_compiled=False):
        """Compiles all proto files into the folder, unless another process has done so, and imports
        them. Once per process."""
        self.folder = out
        if not is_compiled:
            self._compile()
        sys.path.insert(0, str(out))
        self.tree = importlib.import_module("obstree_pb2")
        self.state = importlib.import_module("state_monitoring_pb2")
        self.configuration = importlib.import_module("configuration_pb2")
        self.introspection = importlib.import_module("introspection_pb2")

    def _compile(self):
        run_protoc(f"--python_out={self.folder}")

    def service(self, module, name):
        """The ServiceDescriptor of a module's service."""
        return module.DESCRIPTOR.services_by_name[name]


def run_protoc(*options):
    """Runs protoc on all proto files of the wire format."""
    files = [str(file) for root in PROTO_ROOTS for file in sorted(root.rglob("*.proto"))]
    subprocess.run(["protoc", *[f"-I{root}" for root in PROTO_ROOTS], *options, *files], check=True)


def install_module(prefix):
    """Installs the module halvo from the build of the program under test; returns the folder that
    Python imports it from."""
    subprocess.run(["cmake", "--install", program().parents[1], "--component", "python",
                    "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
    return prefix / "lib/python3/dist-packages"


def streaming_methods(service):
    """Names of the methods of a service that answer with a stream."""
    file = descriptor_pb2.FileDescriptorProto.FromString(service.file.serialized_pb)
    proto = next(entry for entry in file.service if entry.name == service.name)
    return {method.name for method in proto.method if method.server_streaming}
