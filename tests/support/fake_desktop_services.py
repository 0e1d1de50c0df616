#!/usr/bin/python3
"""Stand-ins for the desktop services a tray program talks to, on a private session bus.

- org.freedesktop.Notifications: every Notify call is appended to a JSON-lines file and answered
  with increasing ids (or the replaced id).
- org.kde.StatusNotifierWatcher (optional): accepts item registrations, reports one registered
  host, and logs registrations and the items' disappearance.
- org.freedesktop.FileManager1 (optional): ShowItems calls are logged.

Prints "ready" on standard output once every name is owned.
"""

import argparse
import json
import os
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NOTIFICATIONS_IFACE = "org.freedesktop.Notifications"
WATCHER_IFACE = "org.kde.StatusNotifierWatcher"
PROPS_IFACE = "org.freedesktop.DBus.Properties"


def to_json(value):
    """dbus values into plain JSON; byte arrays (image-data) become their length."""
    if isinstance(value, dbus.ByteArray) or (isinstance(value, dbus.Array) and value.signature == "y"):
        return {"bytes": len(value)}
    if isinstance(value, dict):
        return {str(k): to_json(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [to_json(v) for v in value]
    if isinstance(value, dbus.Boolean):  # an int to json, a bool to the tests
        return bool(value)
    return value  # the other dbus types are str, int and float subclasses


class Journal:
    def __init__(self, path):
        self.path = path
        open(path, "a").close()

    def append(self, record):
        with open(self.path, "a", encoding="utf-8") as f:
            f.write(json.dumps(record, ensure_ascii=False) + "\n")
            f.flush()


class Notifications(dbus.service.Object):
    def __init__(self, bus, journal):
        super().__init__(bus, "/org/freedesktop/Notifications")
        self.journal = journal
        self.next_id = 1

    @dbus.service.method(NOTIFICATIONS_IFACE, in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout):
        if replaces_id:
            nid = int(replaces_id)
        else:
            nid = self.next_id
            self.next_id += 1
        self.journal.append({
            "id": nid,
            "app_name": str(app_name),
            "replaces_id": int(replaces_id),
            "app_icon": str(app_icon),
            "summary": str(summary),
            "body": str(body),
            "actions": [str(a) for a in actions],
            "hints": to_json(hints),
            "expire_timeout": int(expire_timeout),
        })
        return dbus.UInt32(nid)



WATCHER_XML = """<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect"><arg name="xml" type="s" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="Get">
      <arg name="interface" type="s" direction="in"/><arg name="name" type="s" direction="in"/>
      <arg name="value" type="v" direction="out"/>
    </method>
    <method name="GetAll">
      <arg name="interface" type="s" direction="in"/><arg name="values" type="a{sv}" direction="out"/>
    </method>
    <method name="Set">
      <arg name="interface" type="s" direction="in"/><arg name="name" type="s" direction="in"/>
      <arg name="value" type="v" direction="in"/>
    </method>
    <signal name="PropertiesChanged">
      <arg type="s"/><arg type="a{sv}"/><arg type="as"/>
    </signal>
  </interface>
  <interface name="org.kde.StatusNotifierWatcher">
    <method name="RegisterStatusNotifierItem"><arg name="service" type="s" direction="in"/></method>
    <method name="RegisterStatusNotifierHost"><arg name="service" type="s" direction="in"/></method>
    <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
    <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
    <property name="ProtocolVersion" type="i" access="read"/>
    <signal name="StatusNotifierItemRegistered"><arg type="s"/></signal>
    <signal name="StatusNotifierItemUnregistered"><arg type="s"/></signal>
    <signal name="StatusNotifierHostRegistered"/>
    <signal name="StatusNotifierHostUnregistered"/>
  </interface>
</node>
"""


class StatusNotifierWatcher(dbus.service.Object):
    def __init__(self, bus, journal):
        super().__init__(bus, "/StatusNotifierWatcher")
        self.bus = bus
        self.journal = journal
        self.items = []  # "service/path" strings, as a real watcher reports them
        self.hosts = ["org.kde.StatusNotifierHost-%d" % os.getpid()]
        bus.add_signal_receiver(self._owner_changed, signal_name="NameOwnerChanged",
                                dbus_interface="org.freedesktop.DBus", bus_name="org.freedesktop.DBus")

    # python-dbus builds introspection data from methods and signals only; Qt needs the properties.
    @dbus.service.method("org.freedesktop.DBus.Introspectable", in_signature="", out_signature="s")
    def Introspect(self):
        return WATCHER_XML

    def _properties(self):
        return {
            "RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s"),
            "IsStatusNotifierHostRegistered": dbus.Boolean(bool(self.hosts)),
            "ProtocolVersion": dbus.Int32(0),
        }

    @dbus.service.method(PROPS_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        props = self._properties()
        if name not in props:
            raise dbus.exceptions.DBusException("no property " + name,
                                                name="org.freedesktop.DBus.Error.UnknownProperty")
        return props[name]

    @dbus.service.method(PROPS_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return self._properties()

    @dbus.service.method(PROPS_IFACE, in_signature="ssv", out_signature="")
    def Set(self, interface, name, value):
        raise dbus.exceptions.DBusException("read-only", name="org.freedesktop.DBus.Error.PropertyReadOnly")

    @dbus.service.signal(PROPS_IFACE, signature="sa{sv}as")
    def PropertiesChanged(self, interface, changed, invalidated):
        pass

    @dbus.service.method(WATCHER_IFACE, in_signature="s", out_signature="", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, service, sender=None):
        service = str(service)
        # Items pass either their bus name or an object path on their own connection.
        if service.startswith("/"):
            bus_name, path = str(sender), service
        else:
            bus_name, path = service, "/StatusNotifierItem"
        entry = bus_name + path
        if entry not in self.items:
            self.items.append(entry)
        self.journal.append({"event": "registered", "item": entry})
        self.StatusNotifierItemRegistered(entry)
        self.PropertiesChanged(WATCHER_IFACE, {"RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s")},
                               [])

    @dbus.service.method(WATCHER_IFACE, in_signature="s", out_signature="")
    def RegisterStatusNotifierHost(self, service):
        if str(service) not in self.hosts:
            self.hosts.append(str(service))
        self.StatusNotifierHostRegistered()

    @dbus.service.signal(WATCHER_IFACE, signature="s")
    def StatusNotifierItemRegistered(self, service):
        pass

    @dbus.service.signal(WATCHER_IFACE, signature="s")
    def StatusNotifierItemUnregistered(self, service):
        pass

    @dbus.service.signal(WATCHER_IFACE, signature="")
    def StatusNotifierHostRegistered(self):
        pass

    def _owner_changed(self, name, old_owner, new_owner):
        if new_owner:
            return
        gone = [e for e in self.items if e.startswith(str(name) + "/")]
        for entry in gone:
            self.items.remove(entry)
            self.journal.append({"event": "unregistered", "item": entry})
            self.StatusNotifierItemUnregistered(entry)


class FileManager(dbus.service.Object):
    NAME = "org.freedesktop.FileManager1"

    def __init__(self, bus, journal):
        super().__init__(bus, "/org/freedesktop/FileManager1")
        self.journal = journal

    @dbus.service.method(NAME, in_signature="ass", out_signature="")
    def ShowItems(self, uris, startup_id):
        self.journal.append({"method": "ShowItems", "uris": [str(u) for u in uris], "startup_id": str(startup_id)})


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--notifications-log", required=True)
    parser.add_argument("--watcher-log")
    parser.add_argument("--file-manager-log")
    args = parser.parse_args()

    DBusGMainLoop(set_as_default=True)
    bus = dbus.SessionBus()
    keep = []
    keep.append(Notifications(bus, Journal(args.notifications_log)))
    keep.append(dbus.service.BusName("org.freedesktop.Notifications", bus, do_not_queue=True))
    if args.file_manager_log:
        keep.append(FileManager(bus, Journal(args.file_manager_log)))
        keep.append(dbus.service.BusName(FileManager.NAME, bus, do_not_queue=True))
    if args.watcher_log:
        watcher = StatusNotifierWatcher(bus, Journal(args.watcher_log))
        keep.append(watcher)
        keep.append(dbus.service.BusName("org.kde.StatusNotifierWatcher", bus, do_not_queue=True))
        keep.append(dbus.service.BusName(watcher.hosts[0], bus, do_not_queue=True))

    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, 15, loop.quit)
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, 2, loop.quit)
    print("ready", flush=True)
    loop.run()


if __name__ == "__main__":
    sys.exit(main())
