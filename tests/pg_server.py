"""A throwaway PostgreSQL cluster for the tests: initdb into a temporary folder, a
server on a free loopback port (and a unix socket in the same folder), a password
login for the tests' role, stopped and removed at the end of the session.

When the tests run as root the server runs as the `postgres` OS user, as PostgreSQL
requires. If anything is missing the run fails with the reason, never skips.
"""
import glob
import os
import pwd
import shutil
import signal
import socket
import subprocess
import tempfile

USER, PASSWORD, DATABASE = "vexcore", "s3cret-Pw", "vexcore"


def server_binaries():
    """The folder holding initdb and pg_ctl: $VEXCORE_PG_BIN, Debian's newest, or PATH."""
    candidates = [os.environ.get("VEXCORE_PG_BIN", "")]
    candidates += sorted(glob.glob("/usr/lib/postgresql/*/bin"), key=lambda p: int(p.split("/")[-2]), reverse=True)
    which = shutil.which("initdb")
    candidates.append(os.path.dirname(os.path.realpath(which)) if which else "")
    for folder in candidates:
        if folder and os.path.isfile(os.path.join(folder, "initdb")) and os.path.isfile(os.path.join(folder, "pg_ctl")):
            return folder
    raise RuntimeError("PostgreSQL server binaries (initdb, pg_ctl) not found: install Debian's "
                       "'postgresql' package (make check does) or set VEXCORE_PG_BIN")


def server_environment():
    """The server's environment: ours without the sanitizer runtime preloaded for the
    module's tests (initdb and postgres are not built for it and crawl under it)."""
    unwanted = ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS", "PYTHONMALLOC")
    return {name: value for name, value in os.environ.items() if name not in unwanted}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class PostgresServer:
    def __init__(self):
        self.bin = server_binaries()
        self.folder = tempfile.mkdtemp(prefix="vexcore-pg-")
        self.data = os.path.join(self.folder, "data")
        self.port = free_port()
        self.as_postgres = os.geteuid() == 0
        if self.as_postgres:
            os.chown(self.folder, pwd.getpwnam("postgres").pw_uid, -1)
        self.url = "postgresql://%s:%s@127.0.0.1:%d/%s" % (USER, PASSWORD, self.port, DATABASE)

    def _run(self, *command, timeout=60):
        command = [os.path.join(self.bin, command[0]), *command[1:]]
        if self.as_postgres:
            command = ["runuser", "-u", "postgres", "--", *command]
        # A session of its own, so that a command that hangs is ended with everything it started.
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                   cwd=self.folder, env=server_environment(), start_new_session=True)
        try:
            out, err = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            raise RuntimeError("%s did not finish within %d s" % (" ".join(command), timeout)) from None
        if process.returncode != 0:
            raise RuntimeError("%s failed (%d): %s" % (" ".join(command), process.returncode,
                                                       (err or out).strip()[-800:]))

    def start(self):
        if not os.path.exists(self.data):
            self._run("initdb", "-D", self.data, "-U", "postgres", "--auth-local=trust",
                      "--auth-host=scram-sha-256", "-E", "UTF8", "--locale=C.UTF-8")
        options = ("-c listen_addresses=127.0.0.1 -p %d -c unix_socket_directories=%s -c max_connections=300 "
                   "-c fsync=off -c synchronous_commit=off -c full_page_writes=off" % (self.port, self.folder))
        self._run("pg_ctl", "-D", self.data, "-o", options, "-l", os.path.join(self.folder, "server.log"),
                  "-w", "-t", "60", "start")

    def stop(self, mode="fast"):
        self._run("pg_ctl", "-D", self.data, "-m", mode, "-w", "-t", "60", "stop")

    def admin(self):
        import psycopg
        return psycopg.connect(host=self.folder, port=self.port, user="postgres", dbname="postgres", autocommit=True)

    def create_role_and_database(self):
        with self.admin() as db:
            db.execute("CREATE ROLE %s LOGIN PASSWORD '%s'" % (USER, PASSWORD))
            db.execute("CREATE DATABASE %s OWNER %s" % (DATABASE, USER))

    def url_for_schema(self, schema):
        """A URL whose connections use their own schema: a fresh database for one test."""
        import psycopg
        with psycopg.connect(self.url, autocommit=True) as db:
            db.execute("CREATE SCHEMA %s" % schema)
        return "%s?options=-csearch_path%%3D%s" % (self.url, schema)

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def start_server():
    server = PostgresServer()
    try:
        server.start()
    except Exception:
        server.remove()
        raise
    try:
        server.create_role_and_database()
    except Exception:
        server.stop("immediate")
        server.remove()
        raise
    return server
