"""Something between a client and a service that acts in the middle of a call."""
import concurrent.futures

import grpc

from kit.namespaces import free_port


class Interposer(grpc.GenericRpcHandler):
    """Passes unary calls on to a service.

    after: what is called, by the name of the method, when the service has answered and before the
    client gets the answer; what it returns, if anything, is the answer.
    calls: the names of all methods that were called, in order.
    """

    def __init__(self, address, **after):
        self.calls = []
        self._after = after
        self._service = grpc.insecure_channel(address)
        self._server = grpc.server(concurrent.futures.ThreadPoolExecutor(4), handlers=[self])
        self.address = f"127.0.0.1:{free_port()}"
        assert self._server.add_insecure_port(self.address)
        self._server.start()

    def service(self, handler_call_details):
        path = handler_call_details.method
        return grpc.unary_unary_rpc_method_handler(
            lambda request, context: self._pass_on(path, request, context))

    def _pass_on(self, path, request, context):
        name = path.rpartition("/")[2]
        self.calls.append(name)
        try:
            answer = self._service.unary_unary(path)(request)
        except grpc.RpcError as error:
            context.abort(error.code(), error.details())
        other = self._after.get(name, lambda: None)()
        return answer if other is None else other

    def close(self):
        self._server.stop(0).wait(20)
        self._service.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
