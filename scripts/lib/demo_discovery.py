"""The part of the demo that finds the service on the network, as another program would."""
from demo_show import Operator, check, headline
from kit.dns_sd import Browser, browse, instance_names


def show_instances(service, bus):
    headline("What avahi-browse finds on the loopback interface")
    found = browse(bus)
    for instance in found:
        print(f"  {instance.name}  {instance.type}  {instance.interface}  {instance.protocol}  "
              f"{instance.address}:{instance.port}")
        for record in instance.txt:
            print(f"      {record}")
    check([instance.name for instance in found] == instance_names(service),
          "each capability must be found once")
    check(all((instance.address, instance.port) == ("127.0.0.1", service.port)
              for instance in found), "a wrong address")
    Operator(service)("discover")


def show_end(service, bus):
    """Ends the service while a browser follows its instances."""
    with Browser(bus) as browser:
        for name in instance_names(service):
            browser.wait_for("+", name)
        service.stop()
        print(f"\nSIGTERM: ended with status 0 after {service.stop_seconds:.2f} s.")
        for name in instance_names(service):
            browser.wait_for("-", name)
    print("avahi-browse has seen both instances vanish.")
