"""A client without proto files can ask the service for its methods."""

SERVICES = [b"Hox.Capability.StateMonitoring.Api.StateMonitoringService",
            b"Hox.Capability.Configuration.Api.ConfigurationService",
            b"Hox.Capability.Introspection.IntrospectionService",
            b"grpc.reflection.v1alpha.ServerReflection"]


def ask(client, field, text):
    """One request of the standard reflection service: the given field contains the text."""
    call = client.channel.stream_stream(
        "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo")
    request = bytes([field << 3 | 2, len(text)]) + text
    return next(call(iter([request]), timeout=20, wait_for_ready=True))


def test_the_services_are_listed(client):
    answer = ask(client, 7, b"*")
    for name in SERVICES:
        assert name in answer


def test_a_symbol_leads_to_its_file(client):
    answer = ask(client, 4, SERVICES[0])
    assert b"state_monitoring.proto" in answer
    assert b"createStateNotification" in answer


def test_the_tree_options_are_part_of_the_description(client):
    assert b"/state/notifications" in ask(client, 4, SERVICES[0])
