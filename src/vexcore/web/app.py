"""The application: routes, templates, the guard and how failures reach the page."""

import logging
import math
import os

from starlette.applications import Starlette
from starlette.concurrency import run_in_threadpool
from starlette.middleware import Middleware
from starlette.responses import RedirectResponse
from starlette.routing import Mount, Route
from starlette.staticfiles import StaticFiles
from starlette.templating import Jinja2Templates

from vexcore.tables.kinds import frequency_text

from . import store
from .security import CSRF_FIELD, BodyLimit, Guard, Refusal, TooLarge, check_csrf

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_UPLOAD_LIMIT = 64 << 20
log = logging.getLogger("vexcore.web")
templates = Jinja2Templates(directory=os.path.join(HERE, "templates"))


def render(request, template, status=200, **context):
    context.setdefault("csrf_field", CSRF_FIELD)
    return templates.TemplateResponse(request, template, context, status_code=status)


def render_refusal(request, refusal):
    return render(request, "message.html", refusal.status, title=refusal.title, message=refusal.message)


async def refused(request, refusal):
    if not isinstance(refusal, TooLarge) or refusal.status != 413:
        log.warning("refused %s %s: %s", request.method, request.url.path, refusal.message)
    else:
        log.warning("refused %s %s: body over the limit", request.method, request.url.path)
    return render_refusal(request, refusal)


async def failed(request, error):
    log.exception("%s %s failed", request.method, request.url.path)
    return render(
        request,
        "message.html",
        500,
        title="Something went wrong",
        message="The request could not be completed (%s: %s). The server log has the details; "
        "nothing was changed unless the page said so." % (type(error).__name__, error),
    )


async def form_of(request, limit):
    """The posted form, refused unless it carries the browser's CSRF token."""
    form = await request.form(max_files=2, max_fields=5000, max_part_size=limit)
    check_csrf(request, form)
    return form


async def upload_of(form, field, limit):
    """The bytes of an uploaded file field (refused when missing or over the limit)."""
    upload = form.get(field)
    if upload is None or isinstance(upload, str) or not upload.filename:
        raise Refusal("Choose a file to upload first.")
    data = await upload.read(limit + 1)
    if len(data) > limit:
        raise TooLarge(limit)
    return upload.filename, data


def frequency_of(text):
    try:
        value = float(text)
    except ValueError:
        value = math.nan
    if not math.isfinite(value) or value <= 0:
        raise Refusal("%r is not a frequency in GHz." % text, 404, "Not found")
    return value


async def in_thread(function, *args):
    """Table work runs in a worker thread: a large table must not stall other pages."""
    return await run_in_threadpool(function, *args)


def create_app(db_path=None, token=None, upload_limit=DEFAULT_UPLOAD_LIMIT, num_beam=None):
    """The ASGI application over the table database `db_path` (default: the SDK's)."""
    from . import beams, devices, kits

    store.configure(db_path)
    templates.env.globals.update(frequency_text=frequency_text)
    settings = {"upload_limit": upload_limit, "num_beam": num_beam}
    routes = [
        Route("/", lambda request: RedirectResponse("/devices", 303)),
        Mount("/static", StaticFiles(directory=os.path.join(HERE, "static")), name="static"),
    ]
    routes += devices.routes() + kits.routes() + beams.routes()
    app = Starlette(
        routes=routes,
        # The body limit sits inside the guard, so that a refusal raised while an
        # endpoint reads the body reaches the refusal handler.
        middleware=[
            Middleware(Guard, token=token, render_refusal=render_refusal),
            Middleware(BodyLimit, limit=upload_limit),
        ],
        exception_handlers={Refusal: refused, Exception: failed, 404: not_found, 405: not_allowed},
    )
    app.state.settings = settings
    return app


async def not_found(request, error):
    return render(request, "message.html", 404, title="Not found", message="There is no page at %s." % request.url.path)


async def not_allowed(request, error):
    return render(
        request,
        "message.html",
        405,
        title="Not allowed",
        message="%s is not allowed on %s." % (request.method, request.url.path),
    )
