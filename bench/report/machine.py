"""Where, with what and when the figures were measured."""

import datetime
import os
import platform
import re
import subprocess

PEERS = ["libboost-dev", "libzmq5", "libnng1", "iceoryx", "zlib1g", "libbenchmark1.7.1", "pv",
         "restic", "borgbackup", "rclone"]


def describe(source, build):
    return {
        "cpu": _first_match("/proc/cpuinfo", r"model name\s*:\s*(.*)"),
        "cores": os.cpu_count(),
        "caches": _caches(),
        "memory_gib": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30),
        "kernel": platform.release(),
        "system": _first_match("/etc/os-release", r'PRETTY_NAME="(.*)"'),
        "compiler": _compiler(build),
        "build_type": _first_match(build / "CMakeCache.txt", r"CMAKE_BUILD_TYPE:\w+=(.*)"),
        "commit": _output(["git", "-C", str(source), "describe", "--always", "--dirty"]),
        "packages": {name: version for name in PEERS if (version := _package_version(name))},
        "load_before": os.getloadavg()[0],
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
    }


def markdown(machine, command):
    packages = ", ".join(f"{name} {version}" for name, version in machine["packages"].items())
    return "\n".join([
        f"- Machine: {machine['cpu']}, {machine['cores']} cores, {machine['caches']}, "
        f"{machine['memory_gib']} GiB memory",
        f"- System: {machine['system']}, Linux {machine['kernel']}",
        f"- Compiler: {machine['compiler']}, {machine['build_type']}",
        f"- Packages: {packages}",
        f"- Date: {machine['date']}; load before the run {machine['load_before']:.2f}",
        f"- Commit: {machine['commit']}",
        f"- Command: `{command}`",
    ])


def _output(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def _first_match(path, pattern):
    try:
        with open(path) as file:
            found = re.search(pattern, file.read())
    except OSError:
        return ""
    return found.group(1) if found else ""


def _caches():
    """Sizes of the first core's caches, as the kernel names them."""
    found = []
    folder = "/sys/devices/system/cpu/cpu0/cache"
    for index in sorted(os.listdir(folder)) if os.path.isdir(folder) else []:
        kind = _first_match(f"{folder}/{index}/type", r"(\w+)")
        if kind in ("Data", "Unified"):
            level = _first_match(f"{folder}/{index}/level", r"(\d+)")
            found.append(f"L{level} {_first_match(f'{folder}/{index}/size', r'(.*)')}")
    return " ".join(found)


def _compiler(build):
    path = _first_match(build / "CMakeCache.txt", r"CMAKE_CXX_COMPILER:\w+=(.*)")
    return _output([path, "--version"]).split("\n")[0] if path else ""


def _package_version(name):
    return _output(["dpkg-query", "-W", "-f", "${Version}", name])
