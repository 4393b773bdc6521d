"""The configuration of the manager that gets the traps."""


def set_manager(client, manager_ip="127.0.0.1", trap_port="162", community="public"):
    """Sends traps there from now on."""
    configuration = client.protos.state.SnmpConfiguration(
        managerIp=manager_ip, trapPort=str(trap_port), community=community)
    client.state.setSnmpConf(client.protos.state.SetSnmpConfReq(conf=configuration))
    return configuration


def get_manager(client):
    """The configuration; None if there is none."""
    answer = client.state.getSnmpConf(client.protos.state.GetSnmpConfReq())
    return answer.conf if answer.HasField("conf") else None


def remove_manager(client):
    """Sends no more traps."""
    client.state.removeSnmpConf(client.protos.state.RemoveSnmpConfReq())
