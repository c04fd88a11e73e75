"""Who may use the front end and which requests may change tables.

- Access token: required when the server listens on anything but the loopback
  address. A browser presents it once as ``?token=...`` (it is then kept in a cookie)
  or on every request as ``Authorization: Bearer ...``.
- Cross-site request forgery: every form carries the token of the browser's
  ``vexcore_csrf`` cookie (double submit, SameSite=Strict), and a request that changes
  anything must come from this site's own pages (Origin, when the browser sends one).
- Size: a request body larger than the limit is cut off and refused.
"""

import hmac
import logging
import secrets
from urllib.parse import urlsplit

from starlette.middleware.base import BaseHTTPMiddleware

TOKEN_COOKIE = "vexcore_token"
CSRF_COOKIE = "vexcore_csrf"
CSRF_FIELD = "csrf"
SAFE_METHODS = ("GET", "HEAD", "OPTIONS")

log = logging.getLogger("vexcore.web")


class Refusal(Exception):
    """A request the front end refuses: a message on the page and a warning in the log."""

    def __init__(self, message, status=400, title="Refused"):
        super().__init__(message)
        self.message, self.status, self.title = message, status, title


class TooLarge(Refusal):
    def __init__(self, limit):
        size = "%d MiB" % (limit >> 20) if limit >= 1 << 20 else "%d bytes" % limit
        super().__init__("The upload is larger than the limit of %s." % size, 413, "Too large")


def same(given, expected):
    return bool(given) and hmac.compare_digest(str(given).encode(), str(expected).encode())


class Guard(BaseHTTPMiddleware):
    """Access token, the origin of changing requests, and the browser's CSRF cookie."""

    def __init__(self, app, token=None, render_refusal=None):
        super().__init__(app)
        self.token = token
        self.render_refusal = render_refusal

    async def dispatch(self, request, call_next):
        refusal = self._refusal(request)
        fresh_token = False
        if refusal is None and self.token and same(request.query_params.get("token"), self.token):
            fresh_token = not same(request.cookies.get(TOKEN_COOKIE), self.token)
        csrf = request.cookies.get(CSRF_COOKIE)
        request.state.csrf = csrf if csrf and len(csrf) >= 32 else secrets.token_urlsafe(32)
        if refusal is not None:
            log.warning("refused %s %s: %s", request.method, request.url.path, refusal.message)
            response = self.render_refusal(request, refusal)
        else:
            response = await call_next(request)
        if request.state.csrf != csrf:
            response.set_cookie(CSRF_COOKIE, request.state.csrf, httponly=True, samesite="strict")
        if fresh_token:
            response.set_cookie(TOKEN_COOKIE, self.token, httponly=True, samesite="strict")
        response.headers.setdefault("X-Frame-Options", "DENY")
        response.headers.setdefault("X-Content-Type-Options", "nosniff")
        return response

    def _refusal(self, request):
        if self.token and not self._has_token(request):
            return Refusal(
                "This server needs its access token: open it once as /?token=... (ask whoever runs it).",
                401,
                "Access token required",
            )
        if request.method not in SAFE_METHODS:
            origin = request.headers.get("origin")
            if origin and origin != "null" and urlsplit(origin).netloc != request.headers.get("host"):
                return Refusal(
                    "A request from another site (%s) may not change tables." % origin,
                    403,
                    "Cross-site request refused",
                )
        return None

    def _has_token(self, request):
        header = request.headers.get("authorization", "")
        bearer = header[7:] if header.lower().startswith("bearer ") else None
        return any(
            same(given, self.token)
            for given in (request.query_params.get("token"), request.cookies.get(TOKEN_COOKIE), bearer)
        )


def check_csrf(request, form):
    """Refuses a form that does not carry the browser's own CSRF token."""
    cookie = request.cookies.get(CSRF_COOKIE)
    if not (cookie and same(form.get(CSRF_FIELD), cookie)):
        raise Refusal(
            "The form has expired or did not come from this site; reload the page and try again.", 403, "Form refused"
        )


class BodyLimit:
    """Counts the bytes of a request body and refuses it past `limit` (whatever its headers say)."""

    def __init__(self, app, limit):
        self.app, self.limit = app, limit

    async def __call__(self, scope, receive, send):
        if scope["type"] != "http":
            return await self.app(scope, receive, send)
        declared = dict(scope.get("headers") or []).get(b"content-length")
        if declared is not None and declared.isdigit() and int(declared) > self.limit:
            receive = _refuse_body(self.limit)
        else:
            receive = _counted(receive, self.limit)
        return await self.app(scope, receive, send)


def _refuse_body(limit):
    async def receive():
        raise TooLarge(limit)

    return receive


def _counted(receive, limit):
    seen = 0

    async def counted():
        nonlocal seen
        message = await receive()
        if message["type"] == "http.request":
            seen += len(message.get("body", b""))
            if seen > limit:
                raise TooLarge(limit)
        return message

    return counted
