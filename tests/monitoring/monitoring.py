#!/usr/bin/env python3
"""Metrics and alerts in front of the real Prometheus and its node exporter.

  monitoring.py rules RULES TESTS
  monitoring.py scrape RULES DAEMON TOOL

`rules` has promtool check the rules and run their tests. `scrape` runs a daemon with --metrics, has
promtool check its file, has the node exporter serve it and Prometheus collect it, and asks that for
what the daemon did. Programs are taken from KORVEX_MONITORING_PROGRAMS, or from PATH.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.parse
import urllib.request

SKIPPED = 77
PATIENCE = 60  # seconds; far more than anything takes
DATA = b"x" * 300_000


def program(name):
    unpacked = os.path.join(os.environ.get("KORVEX_MONITORING_PROGRAMS", ""), name)
    found = unpacked if os.access(unpacked, os.X_OK) else shutil.which(name)
    if found is None:
        print(f"skipped: no {name}; `./run setup` fetches it")
        sys.exit(SKIPPED)
    return found


def fail(what):
    print(f"FAILED: {what}")
    sys.exit(1)


def check_rules(rules, tests):
    promtool = program("promtool")
    subprocess.run([promtool, "check", "rules", rules], check=True)
    subprocess.run([promtool, "test", "rules", tests], check=True)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Running:
    """A program that is terminated at the end of the block."""

    def __init__(self, folder, name, command):
        self.log = os.path.join(folder, name + ".log")
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(command, cwd=folder, stdout=log, stderr=log)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def text(self):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()


def eventually(look, what, *programs):
    """What `look` gives, once it is neither None nor False."""
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        found = look()
        if found:
            return found
        for running in programs:
            if running.process.poll() is not None:
                fail(f"{what}: a program ended:\n{running.text()}")
        time.sleep(0.1)
    return fail(f"{what}: not within {PATIENCE} s\n" + "\n".join(p.text() for p in programs))


def fetch(url):
    try:
        with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
            return answer.read().decode()
    except (urllib.error.URLError, ConnectionError):
        return ""


class Prometheus:
    def __init__(self, port):
        self.base = f"http://127.0.0.1:{port}/api/v1/"

    def value(self, query):
        """The value of the one series that this gives, else None."""
        answer = fetch(self.base + "query?" + urllib.parse.urlencode({"query": query}))
        result = json.loads(answer)["data"]["result"] if answer else []
        return float(result[0]["value"][1]) if len(result) == 1 else None

    def rules(self):
        answer = fetch(self.base + "rules")
        groups = json.loads(answer)["data"]["groups"] if answer else []
        rules = [rule for group in groups for rule in group["rules"]]
        return rules if rules and all(rule["health"] == "ok" for rule in rules) else None


def write_configuration(folder, rules, exporter_port):
    path = os.path.join(folder, "prometheus.yml")
    with open(path, "w", encoding="utf-8") as file:
        json.dump({"global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
                   "rule_files": [rules],
                   "scrape_configs": [{"job_name": "node", "static_configs": [
                       {"targets": [f"127.0.0.1:{exporter_port}"]}]}]}, file)  # JSON is YAML, too
    return path


def check_scraped(prometheus, queue, running):
    def expect(query, value):
        eventually(lambda: prometheus.value(query) == value, f"{query} is {value}", *running)

    own = f'queue="{queue}"'
    expect(f'korvex_streams_total{{{own},result="complete"}}', 1)
    expect(f'korvex_streams_total{{{own},result="stopped"}}', 1)
    expect(f"korvex_bytes_total{{{own}}}", len(DATA))
    expect("count(korvex_build_info)", 1)
    expect("node_textfile_scrape_error", 0)
    age = prometheus.value(f"time() - korvex_last_success_timestamp_seconds{{{own}}}")
    if age is None or not -1 <= age <= 2 * PATIENCE:
        fail(f"the last success is {age} s ago, expected a few")
    rules = eventually(prometheus.rules, "all rules are evaluated", *running)
    if len(rules) != 8:
        fail(f"Prometheus has {len(rules)} rules, expected 8")
    return rules


def send(tool, queue):
    subprocess.run([tool, "send", "--quiet", "--queue", queue], input=DATA, check=True)
    broken = [tool, "send", "--quiet", "--queue", queue, "--from-command", "--", "false"]
    if subprocess.run(broken, stderr=subprocess.DEVNULL, check=False).returncode == 0:
        fail("a command that fails was sent as a whole")


def scrape(rules, daemon, tool):
    promtool, exporter, server = map(program, ("promtool", "prometheus-node-exporter", "prometheus"))
    queue = f"korvex-monitoring-{os.getpid()}"
    with tempfile.TemporaryDirectory(prefix="korvex-test-") as folder:
        metrics = os.path.join(folder, "metrics", "shop.prom")
        collected = os.path.join(folder, "textfile")
        os.mkdir(os.path.dirname(metrics))
        os.mkdir(collected)
        os.symlink(metrics, os.path.join(collected, "shop.prom"))
        exporter_port, port = free_port(), free_port()
        configuration = write_configuration(folder, os.path.abspath(rules), exporter_port)
        with Running(folder, "korvexd", [daemon, "--queue", queue, "--discard",
                                         "--metrics", metrics]) as korvexd, \
             Running(folder, "exporter", [
                 exporter, f"--web.listen-address=127.0.0.1:{exporter_port}",
                 "--collector.disable-defaults", "--collector.textfile",
                 "--collector.textfile.directory=" + collected]) as node, \
             Running(folder, "prometheus", [
                 server, "--config.file=" + configuration, "--log.level=warn",
                 "--storage.tsdb.path=" + os.path.join(folder, "database"),
                 f"--web.listen-address=127.0.0.1:{port}"]) as collector:
            running = (korvexd, node, collector)
            eventually(lambda: f"serving {queue}," in korvexd.text(), "the daemon serves", korvexd)
            send(tool, queue)
            found = check_scraped(Prometheus(port), queue, running)
            with open(metrics, "rb") as file:
                subprocess.run([promtool, "check", "metrics"], stdin=file, check=True)
    print(f"{len(found)} rules and the metrics of one daemon, through Prometheus")


def main():
    command, *arguments = sys.argv[1:]
    if command == "rules":
        check_rules(*arguments)
    elif command == "scrape":
        scrape(*arguments)
    else:
        fail(f"found {command}, expected rules or scrape")


if __name__ == "__main__":
    main()
