"""vexcore-web: serve the table front end.

Listens on 127.0.0.1 by default. Any other address needs an access token (--token, or
the environment variable VEXCORE_WEB_TOKEN), which browsers present once as ?token=...
"""

import argparse
import ipaddress
import logging
import os
import sys

TOKEN_ENV = "VEXCORE_WEB_TOKEN"
INSTALL_HINT = "the web front end needs its extra: pip install 'vexcore[web]'"


def _parser():
    parser = argparse.ArgumentParser(prog="vexcore-web", description=__doc__.splitlines()[0])
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=8000)
    parser.add_argument("--db", help="table database (default: $VEXCORE_DB, else the SDK files directory)")
    parser.add_argument("--token", help="access token (default: $%s); required off the loopback address" % TOKEN_ENV)
    parser.add_argument("--max-upload-mb", type=int, default=64, help="largest upload accepted (default 64)")
    parser.add_argument("--num-beam", type=int, default=None, help="beam ids per mode (default 1024)")
    parser.add_argument("--log-level", default="info", choices=["debug", "info", "warning", "error"])
    return parser


def is_loopback(host):
    if host == "localhost":
        return True
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False


def main(argv=None):
    args = _parser().parse_args(argv)
    token = args.token or os.environ.get(TOKEN_ENV) or None
    if not is_loopback(args.host) and not token:
        print(
            "vexcore-web: serving on %s needs an access token: give --token or set %s" % (args.host, TOKEN_ENV),
            file=sys.stderr,
        )
        return 2
    try:
        import uvicorn

        from vexcore.web.app import create_app
    except ImportError as error:
        print("vexcore-web: %s (%s)" % (INSTALL_HINT, error), file=sys.stderr)
        return 2
    logging.basicConfig(level=args.log_level.upper(), format="%(asctime)s %(levelname)s %(name)s: %(message)s")
    app = create_app(args.db, token, args.max_upload_mb << 20, args.num_beam)
    print("vexcore-web: http://%s:%d/ over %s" % (args.host, args.port, _where(args.db)), flush=True)
    uvicorn.run(app, host=args.host, port=args.port, log_level=args.log_level)
    return 0


def _where(db):
    from vexcore.web import store

    return store.database_path() if db is None else db
