#!/usr/bin/env python3
"""Shows the packages' and the agent's behaviour in a booted system; see run.sh."""

import argparse
import pathlib
import signal
import sys

import points_bus
import points_events
import points_idle
import points_link
import points_packages
import points_pages
import points_savers
import points_trouble
import points_users
from container import Container
from report import Report
from world import World


def with_dbus_daemon(report, world, brief):
    report.check("the system boots, with dbus-daemon", points_bus.boot_with_dbus_daemon, world)
    points_packages.install_points(report, world)
    if not brief:
        points_users.points(report, world)
        points_pages.points(report, world)
    points_link.points(report, world)
    points_idle.points(report, world)
    points_savers.points(report, world)
    points_events.points(report, world)
    points_bus.points(report, world)
    points_trouble.points(report, world)
    points_packages.removal_points(report, world)


def with_dbus_broker(report, world):
    report.check("dbus-broker takes the place of dbus-daemon", points_bus.change_to_broker, world)
    points_packages.installation_without_users(report, world)
    points_link.short_points(report, world)
    points_events.short_points(report, world)
    points_bus.points(report, world)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--previous", type=pathlib.Path, required=True)
    parser.add_argument("--brief", action="store_true",
                        help="leave out the upgrades with many users, and what is shown again with dbus-broker")
    arguments = parser.parse_args()

    # So that the container is stopped then, too.
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))

    container = Container(arguments.root)
    world = World(container, arguments.packages, arguments.previous)
    report = Report(world.restore)
    try:
        with_dbus_daemon(report, world, arguments.brief)
        if not arguments.brief:
            with_dbus_broker(report, world)
    finally:
        container.stop()
    return 0 if report.close() else 1


if __name__ == "__main__":
    sys.exit(main())
