"""Loggers and their levels, as an operator sees them on both listeners."""
import grpc
import pytest


@pytest.fixture
def both(start):
    """A service with both listeners, and a client of each."""
    service = start(extport=True, log_to_file=True)
    return service, [service.client(), service.client(f"localhost:{service.extport}")]


def levels(client):
    module = client.protos.introspection
    answer = client.introspection.listLoggers(
        client.protos.introspection.DESCRIPTOR.services_by_name["IntrospectionService"]
        .methods_by_name["listLoggers"].input_type._concrete_class())
    names = {logger.name: module.LogLevel.Name(logger.level) for logger in answer.logger}
    assert len(names) == len(answer.logger)
    return names


def set_level(client, name, level):
    client.introspection.setLogLevel(
        client.protos.introspection.SetLogLevelReq(name=name, level=level))


def set_all(client, level):
    client.introspection.setAllLogLevels(
        client.protos.introspection.SetAllLogLevelsReq(level=level))


def level_number(client, name):
    return client.protos.introspection.LogLevel.Value(name)


def test_every_logger_is_listed_with_the_default_level(both):
    for client in both[1]:
        found = levels(client)
        assert {
            "", "ServiceInitializer", "StateMonObsHelper",
            "path_manipulation.h::Hox::ObserverTree::PathManipulation",
        } <= set(found)
        assert set(found.values()) == {"info"}


def test_a_level_set_on_one_listener_shows_on_the_other(both):
    inside, outside = both[1]
    set_level(outside, "StateMonObsHelper", level_number(outside, "debug"))
    found = levels(inside)
    assert found.pop("StateMonObsHelper") == "debug"
    assert set(found.values()) == {"info"}


@pytest.mark.parametrize("name", ["trace", "debug", "info", "warn", "error", "critical", "off"])
def test_all_levels_can_be_set_at_once(client, name):
    set_all(client, level_number(client, name))
    assert set(levels(client).values()) == {name}


def test_the_empty_name_is_the_default_logger(client):
    set_level(client, "", level_number(client, "critical"))
    found = levels(client)
    assert found.pop("") == "critical"
    assert set(found.values()) == {"info"}


def test_an_unknown_logger_is_not_found_and_nothing_changes(client):
    before = levels(client)
    with pytest.raises(grpc.RpcError) as failure:
        set_level(client, "no such logger", level_number(client, "trace"))
    assert failure.value.code() == grpc.StatusCode.NOT_FOUND
    assert failure.value.details() == "No such logger in registry."
    assert levels(client) == before


def test_a_number_outside_the_enumeration_is_taken_as_it_stands(client, service):
    set_level(client, "ServiceInitializer", 42)
    answer = client.introspection.listLoggers(
        client.protos.introspection.DESCRIPTOR.services_by_name["IntrospectionService"]
        .methods_by_name["listLoggers"].input_type._concrete_class())
    assert {logger.level for logger in answer.logger if logger.name == "ServiceInitializer"} == {42}
    service.assert_alive()


def test_trace_lines_appear_in_the_file_while_trace_is_on(both):
    service, (client, _) = both
    client.create("svc", "T", "before")
    set_all(client, level_number(client, "trace"))
    client.create("svc", "T", "during")
    set_all(client, level_number(client, "info"))
    client.create("svc", "T", "after")
    service.stop()
    for text in ("Calling Observers - callbacksBeingProcessed False", "Done Calling Observers",
                 'Node Change Key /state/notifications/latest/svc/T/during Current Value "'):
        assert text in service.log
    assert "T/before" not in service.log
    assert "T/after" not in service.log


def test_a_level_is_gone_after_a_restart(start):
    first = start()
    set_all(first.client(), level_number(first.client(), "error"))
    first.stop()
    assert set(levels(start().client()).values()) == {"info"}
