"""A distributed object store on this machine: Ceph, with an S3 gateway in front of it.

One monitor, one manager, three object stores that keep every object three times, one gateway. All
of it lives in one folder, listens on 127.0.0.1 only and ends with the process that started it.
"""

import json
import pathlib
import socket
import subprocess
import time
import uuid

STORES = 3
KEY = "korvex-cluster"  # of the gateway's only user; nobody else can reach it
SECRET = "korvex-cluster-secret"

CONFIGURATION = """
[global]
fsid = {fsid}
mon host = [v2:127.0.0.1:{monitor_port}]
auth cluster required = none
auth service required = none
auth client required = none
ms mon client mode = crc
public addr = 127.0.0.1
run dir = {folder}
admin socket = {folder}/$name.sock
log file = {folder}/$name.log
crash dir = {folder}
mon data = {folder}/mon
mgr data = {folder}/mgr
osd data = {folder}/$name
rgw data = {folder}/gateway
keyring = {folder}/keyring

# all on one machine
osd crush chooseleaf type = 0
osd pool default size = 3
osd pool default min size = 2
osd pool default pg num = 8
osd pool default pg autoscale mode = off
mon max pg per osd = 1000
mon data avail warn = 1
mon data avail crit = 1

# small: a file instead of a disk, little memory
osd objectstore = bluestore
bluestore block size = 8589934592
bluestore cache autotune = false
bluestore cache size = 67108864
osd memory target = 939524096

# the death of an object store is noticed soon
osd heartbeat interval = 2
osd heartbeat grace = 8
mon osd min down reporters = 1

rgw frontends = beast endpoint=127.0.0.1:{gateway_port}
"""


class Failed(Exception):
    """A part of the store did not start or stay; the text says which."""


def _free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Cluster:
    """The store, from its start to its end. Its processes are killed with this one."""

    def __init__(self, folder):
        self._folder = pathlib.Path(folder)
        self._configuration = self._folder / "ceph.conf"
        self._processes = {}
        self._fsid = str(uuid.uuid4())
        self._monitor_port = _free_port()
        gateway_port = _free_port()
        self.url = f"http://127.0.0.1:{gateway_port}"
        self._configuration.write_text(CONFIGURATION.format(
            fsid=self._fsid, folder=self._folder, monitor_port=self._monitor_port,
            gateway_port=gateway_port))

    def __enter__(self):
        try:
            self._start_monitor()
            self._start("ceph-mgr", "--id", "x")
            for number in range(STORES):
                self._make_store(number)
            self.await_stores_up(STORES)
            self._start_gateway()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in self._processes.values():
            process.kill()
        for process in self._processes.values():
            process.wait()

    def kill_store(self, number):
        """Kills it as a power failure would. Returns its process id."""
        process = self._processes.pop(f"ceph-osd {number}")
        process.kill()
        process.wait()
        return process.pid

    def start_store(self, number):
        self._start("ceph-osd", "--id", str(number))

    def await_stores_up(self, number):
        self._await(f"{number} object stores up",
                    lambda: self._ask("osd", "stat")["num_up_osds"] == number)

    def await_clean(self):
        """Until there are three copies of every object again."""
        def is_clean():
            groups = self._ask("pg", "stat")["pg_summary"]
            return {state["name"] for state in groups["num_pg_by_state"]} == {"active+clean"}
        self._await("every object in three places", is_clean)

    def _start_monitor(self):
        monitors = self._folder / "monmap"
        self._run("monmaptool", "--create", "--fsid", self._fsid, "--addv", "a",
                  f"[v2:127.0.0.1:{self._monitor_port}]", str(monitors))
        self._run("ceph-mon", "--mkfs", "--id", "a", "--monmap", str(monitors))
        self._start("ceph-mon", "--id", "a")
        self._await("the monitor", lambda: self._ask("status"))

    def _make_store(self, number):
        (self._folder / f"osd.{number}").mkdir()
        identity = str(uuid.uuid4())
        self._run("ceph", "osd", "new", identity, str(number))
        self._run("ceph-osd", "--mkfs", "--id", str(number), "--osd-uuid", identity)
        self.start_store(number)

    def _start_gateway(self):
        self._run("radosgw-admin", "user", "create", "--uid", KEY, "--display-name", KEY,
                  "--access-key", KEY, "--secret-key", SECRET)
        self._start("radosgw", "--name", "client.gateway")
        self._await("the gateway", self._is_gateway_there)

    def _is_gateway_there(self):
        host, port = self.url[len("http://"):].split(":")
        try:
            socket.create_connection((host, int(port)), timeout=1).close()
        except OSError:
            return False
        return True

    def _start(self, program, *arguments):
        """In the foreground, and killed with this process, so that nothing of it stays behind."""
        name = " ".join((program,) + arguments[1:])
        with open(self._folder / f"{name}.out", "ab") as output:
            self._processes[name] = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", program, "-c", str(self._configuration), "-f",
                 *arguments], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                start_new_session=True)

    def _run(self, program, *arguments):
        done = subprocess.run([program, "-c", str(self._configuration), *arguments],
                              capture_output=True, text=True, timeout=120)
        if done.returncode != 0:
            raise Failed(f"{program} {' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def _ask(self, *question):
        return json.loads(self._run("ceph", "--connect-timeout", "10", *question,
                                    "--format", "json"))

    def _await(self, what, is_there, seconds=180):
        end = time.monotonic() + seconds
        while not is_there():
            for name, process in self._processes.items():
                if process.poll() is not None:
                    raise Failed(f"{name} ended with {process.returncode}; waited for {what}")
            if time.monotonic() > end:
                raise Failed(f"{what}: not within {seconds} s")
            time.sleep(0.2)
