"""Private servers for the duration of a test: PostgreSQL, MariaDB and S3.

Each lives in a folder of its own and is reached there or on 127.0.0.1 only. Database servers do not
run as root: there they run as nobody. All of them end when the process ends that has started them.
"""

import contextlib
import glob
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

NOBODY = "65534"
AS_NOBODY = ["--reuid", NOBODY, "--regid", NOBODY, "--clear-groups"] if os.getuid() == 0 else []
PATIENCE = 120  # seconds: far more than anything takes, so that a loaded machine fails no test


def eventually(condition):
    """What the condition gives once that is true."""
    deadline = time.monotonic() + PATIENCE
    while not (found := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {PATIENCE} s: {condition}")
        time.sleep(0.02)
    return found


class Server:
    """The common base of all servers."""

    NEEDS = ()  # programs
    OWNER = []  # whom setpriv runs it as
    END = signal.SIGTERM
    CRASH = signal.SIGKILL

    def __init__(self, folder):
        self.folder = folder
        self.environment = {}  # for those who want to reach it
        self._process = None

    def start(self):
        with open(f"{self.folder}/log", "ab") as log:
            self._process = subprocess.Popen(
                self._owned(self._command()), cwd=self.folder, stdout=log, stderr=log)
        eventually(self._is_up)

    def end(self, how=None):
        if self._process:
            self._process.send_signal(how or self.END)
            self._process.wait()

    def _is_up(self):
        if self._process.poll() is not None:
            raise ChildProcessError(f"{self._command()[0]} ended: {self._log()}")
        return self._answers()

    def _log(self):
        with open(f"{self.folder}/log", encoding="utf-8", errors="replace") as file:
            return file.read()

    def _owned(self, command):
        """The command as the owner of the folder runs it, for no longer than this process lives."""
        return ["setpriv", *self.OWNER, "--pdeathsig", self.CRASH.name[3:], *command]


class Database(Server):
    """A server with a database `shop`, and a way to hold up its dump when most of it is out."""

    OWNER = AS_NOBODY
    CLIENT = ()   # runs the statements of its standard input
    FILL = ""     # makes what is in the database
    HOLD = ""     # locks what a dump needs last
    IS_HELD = ""  # finds a dump that waits for this lock

    def make(self):
        subprocess.run(self._owned(self._make_command()), check=True, cwd=self.folder,
                       stdout=subprocess.DEVNULL)
        self.start()
        self.ask("create database shop", "")
        self.ask(self.FILL)

    def ask(self, statements, database="shop"):
        return subprocess.run([*self.CLIENT, database], input=statements, text=True, check=True,
                              env=os.environ | self.environment, stdout=subprocess.PIPE).stdout

    @contextlib.contextmanager
    def held_dumps(self):
        """While this lasts, a dump gets no further than to the last part of its data."""
        with subprocess.Popen([*self.CLIENT, "shop"], text=True, env=os.environ | self.environment,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE) as session:
            session.stdin.write(f"{self.HOLD}; select 'held';\n")
            session.stdin.flush()
            session.stdout.readline()
            yield

    def await_held_dump(self):
        eventually(lambda: self.ask(self.IS_HELD))

    def _answers(self):
        return subprocess.run([*self.CLIENT, ""], input="select 1;", text=True, check=False,
                              env=os.environ | self.environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0


class Postgres(Database):
    """PostgreSQL with 250 MB in two tables and in large objects."""

    NEEDS = ("initdb", "postgres", "psql")
    END = signal.SIGINT     # without waiting for clients
    CRASH = signal.SIGQUIT  # "immediate"
    CLIENT = ("psql", "--no-psqlrc", "--quiet", "--tuples-only", "--no-align",
              "--set=ON_ERROR_STOP=1", "--dbname")
    FILL = """
        begin;
        create table customers as
          select n as id, 'customer ' || n as name, date '1950-01-01' + n % 20000 as born
          from generate_series(1, 100000) n;
        create table orders as
          select n as id, n % 100000 as customer, n % 9999 / 100.0 as price,
            repeat(md5(n::text) || md5((-n)::text), 5) as note
          from generate_series(1, 600000) n;
        alter table customers add primary key (id);
        select lo_from_bytea(0, decode(repeat(md5(n::text), 1000), 'hex'))
          from generate_series(1, 100) n;
        commit;"""
    # Large objects come behind all tables, and a dump does not lock their table at its start.
    HOLD = "begin; lock table pg_largeobject in access exclusive mode"
    IS_HELD = "select 1 from pg_locks where not granted"

    def __init__(self, folder):
        super().__init__(folder)
        self.environment = {"PGHOST": folder, "PGUSER": "postgres"}

    def _make_command(self):
        return [program("initdb"), "--pgdata", "data", "--username", "postgres", "--auth", "trust",
                "--no-sync", "--encoding", "UTF8", "--locale", "C"]

    def _command(self):
        settings = ("listen_addresses=", "dynamic_shared_memory_type=mmap", "fsync=off",
                    "wal_level=minimal", "max_wal_senders=0", "autovacuum=off")
        return [program("postgres"), "-D", "data", "-k", self.folder,
                *(word for setting in settings for word in ("-c", setting))]


class MariaDb(Database):
    """MariaDB with 33 MB in two tables."""

    NEEDS = ("mariadb", "mariadb-install-db", "mariadbd", "mysqldump")
    CLIENT = ("mariadb", "--skip-column-names", "--unbuffered")
    FILL = """
        create table goods (id int primary key, name varchar(400));
        insert into goods select seq, repeat(md5(seq), 10) from seq_1_to_100000;
        create table letters (id int primary key, letter text);
        insert into letters values (1, 'Dear customer'), (2, '');"""
    HOLD = "lock tables letters write"
    IS_HELD = "select 1 from information_schema.processlist where state like 'Waiting for table%'"

    def __init__(self, folder):
        super().__init__(folder)
        with open(f"{folder}/.my.cnf", "w", encoding="utf-8") as file:
            file.write(f"[client]\nsocket={folder}/socket\nuser=root\n")
        self.environment = {"HOME": folder}

    def _make_command(self):
        return ["mariadb-install-db", *self._places(), "--auth-root-authentication-method=normal",
                "--skip-test-db"]

    def _command(self):
        return [program("mariadbd"), *self._places(), f"--socket={self.folder}/socket",
                "--skip-networking"]

    def _places(self):
        # In a common folder, a server that starts removes the temporary tables of the others.
        return ["--no-defaults", f"--datadir={self.folder}/data", f"--tmpdir={self.folder}"]


class S3(Server):
    """An S3 server of npm."""

    NEEDS = ("s3rver",)

    def make(self):
        self.start()
        self.environment = {"S3_ENDPOINT": "http://" + self._answers().group(),
                            "AWS_ACCESS_KEY_ID": "S3RVER", "AWS_SECRET_ACCESS_KEY": "S3RVER"}

    def _command(self):
        return [program("s3rver"), "--directory", self.folder, "--address", "127.0.0.1",
                "--port", "0"]

    def _answers(self):
        return re.search(r"127\.0\.0\.1:\d+(?=\s)", self._log())


def program(name):
    """Where it is; Debian has a server's programs where users do not look for them."""
    folders = [os.environ["PATH"], "/usr/sbin", *sorted(glob.glob("/usr/lib/postgresql/*/bin"))]
    return shutil.which(name, path=":".join(folders))


def missing(names):
    """The first of these programs that is not installed, or None."""
    return next((name for name in names if not program(name)), None)


@contextlib.contextmanager
def running(kind):
    """A server of this kind, with its data."""
    with tempfile.TemporaryDirectory() as folder:
        if kind.OWNER:
            os.chown(folder, int(NOBODY), int(NOBODY))
        server = kind(folder)
        try:
            server.make()
            yield server
        finally:
            server.end()
