#!/usr/bin/python3
"""A local stand-in for the organisation's transcription backend.

Speaks the three requests of TaVREL Recorder under the base path /backend:

    GET  /backend/clients                      the client list (a JSON array of objects)
    POST /backend/transcriptions/upload-async  a multipart upload; answers {"id", "job_id", "title"}
    GET  /backend/transcriptions/jobs/<id>     the job's state {"status", "error"}

and serves a small page at /tavrel/index.html listing what it received. Everything received is kept in
the data directory: requests.jsonl (one line per request: method, raw path, headers, body size) and, for
each upload, uploads/<n>/ with the raw body (body.bin), the parsed fields (fields.json) and the file.

It can be told to misbehave, for tests and for trying the program's error handling by hand, through
POST /_control with a JSON object (see Control.apply) or the matching command-line options. The
state is readable at GET /_control.

Standard library only; run with /usr/bin/python3. Listens where told (127.0.0.1 by default) and prints
"listening on http://HOST:PORT" once ready (with --port 0 the system picks the port).
"""

import argparse
import email.parser
import email.policy
import email.utils
import hashlib
import html
import json
import os
import re
import socket
import ssl
import sys
import threading
import time
import uuid
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

BASE = "/backend"
WEB_PAGE = "/tavrel/index.html"
JOB_PATH = re.compile(r"^" + re.escape(BASE) + r"/transcriptions/jobs/(?P<id>.+)$")

DEFAULT_CLIENTS = [
    {"id": 1, "name": "Dupont SA"},
    {"id": 2, "name": "Dupuis"},
    {"id": 3, "name": "Société Générale"},
    {"id": 4, "name": "Crédit Agricole"},
    {"id": 5, "name": "Boulangerie Lefèvre & Fils"},
    {"id": 6, "name": "Mairie de Saint-Étienne"},
    {"id": 7, "name": "Cabinet Benoît Müller"},
]
DEFAULT_SEQUENCE = ["queued", "transcribing", "summarizing", "done"]
ROUTES = ("clients", "upload", "job", "any")


class Control:
    """Everything tests can change while the server runs. Guarded by `lock`."""

    def __init__(self, args):
        self.lock = threading.Lock()
        self.args = args
        self.token = args.token
        self.clients = list(DEFAULT_CLIENTS)
        self.sequence = list(DEFAULT_SEQUENCE)
        self.advance = args.advance
        self.step_seconds = args.step_seconds
        self.faults = {route: [] for route in ROUTES}
        self.digest_only = args.digest_only
        self.jobs = {}
        self.upload_count = 0
        if args.fault:
            for text in args.fault:
                self.add_fault(json.loads(text))
        if args.sequence:
            self.sequence = json.loads(args.sequence)

    def add_fault(self, fault):
        route = fault.get("route", "any")
        if route not in ROUTES:
            raise ValueError("unknown route %r" % route)
        fault = dict(fault)
        fault.setdefault("times", None)  # None: every request until reset
        self.faults[route].append(fault)

    def apply(self, command):
        """Applies one control object. Keys (all optional):

        reset: true            back to the start-up settings (jobs and uploads are kept)
        token: "x" | null      require "Authorization: Bearer x" under /backend (null: no check)
        clients: [...]         the client list to answer (any JSON value)
        clients_raw: "text"    the exact body of the client list
        sequence: [...]        statuses of jobs created from now on; each item a status string, or an
                               object answered as the job's JSON as it stands, or {"http": code,
                               "body": "..."} for a failed poll
        advance: "poll"|"time" move a job one step per poll, or one step every step_seconds
        step_seconds: n
        digest_only: true      uploads are read as they come, counted and hashed, not kept nor parsed
                               (for recordings of hundreds of megabytes)
        fault: {...}           misbehave on a route ("clients", "upload", "job" or "any"):
                               status (int), body (str), content_type (str), delay (seconds before
                               answering), truncate (announce more bytes than sent, then close),
                               close (drop the connection without answering), times (how many
                               requests it applies to; absent: all)
        faults: [{...}, ...]   several faults
        """
        with self.lock:
            if command.get("reset"):
                self.token = self.args.token
                self.clients = list(DEFAULT_CLIENTS)
                self.sequence = list(DEFAULT_SEQUENCE)
                self.faults = {route: [] for route in ROUTES}
                self.advance = self.args.advance
                self.step_seconds = self.args.step_seconds
                self.digest_only = self.args.digest_only
            if "digest_only" in command:
                self.digest_only = bool(command["digest_only"])
            if "token" in command:
                self.token = command["token"]
            if "clients" in command:
                self.clients = command["clients"]
            if "clients_raw" in command:
                self.clients = RawBody(command["clients_raw"])
            if "sequence" in command:
                self.sequence = list(command["sequence"])
            if "advance" in command:
                self.advance = command["advance"]
            if "step_seconds" in command:
                self.step_seconds = float(command["step_seconds"])
            if "fault" in command:
                self.add_fault(command["fault"])
            for fault in command.get("faults", []):
                self.add_fault(fault)

    def take_fault(self, route):
        with self.lock:
            for candidates in (self.faults[route], self.faults["any"]):
                for fault in candidates:
                    if fault["times"] is None:
                        return fault
                    if fault["times"] > 0:
                        fault["times"] -= 1
                        return fault
        return None

    def state(self):
        with self.lock:
            return {
                "token": self.token,
                "sequence": self.sequence,
                "advance": self.advance,
                "step_seconds": self.step_seconds,
                "faults": self.faults,
                "uploads": self.upload_count,
                "digest_only": self.digest_only,
                "jobs": {job_id: {k: v for k, v in job.items() if k != "created"} for job_id, job in self.jobs.items()},
            }


class RawBody(str):
    """A client list given as text, answered exactly as it stands."""


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # Headers and body go out in separate writes; without this, each answer waits for a delayed ACK.
    disable_nagle_algorithm = True
    server_version = "TavrelReferenceBackend/1.0"

    # ----- plumbing -------------------------------------------------------------------------------------------

    @property
    def control(self):
        return self.server.control

    def log_message(self, fmt, *args):
        sys.stderr.write("[reference-backend] %s %s\n" % (self.address_string(), fmt % args))

    def read_body(self):
        length = int(self.headers.get("Content-Length") or 0)
        chunks = []
        remaining = length
        while remaining > 0:
            chunk = self.rfile.read(min(remaining, 1 << 20))
            if not chunk:
                break
            chunks.append(chunk)
            remaining -= len(chunk)
        return b"".join(chunks)

    def record(self, body):
        entry = {
            "time": time.time(),
            "method": self.command,
            "path": self.path,
            "headers": [[k, v] for k, v in self.headers.items()],
            "body_size": len(body),
        }
        with self.server.log_lock:
            with open(os.path.join(self.server.data, "requests.jsonl"), "a", encoding="utf-8") as log:
                log.write(json.dumps(entry, ensure_ascii=False) + "\n")

    def send(self, status, body, content_type="application/json; charset=utf-8"):
        if isinstance(body, (dict, list)) or body is None:
            body = json.dumps(body, ensure_ascii=False)
        if isinstance(body, str):
            body = body.encode("utf-8", "surrogateescape")
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def misbehave(self, route):
        """Applies a fault set for this route; True when the answer has been given (or refused)."""
        fault = self.control.take_fault(route)
        if not fault:
            return False
        if fault.get("delay"):
            time.sleep(float(fault["delay"]))
        if fault.get("close"):
            self.close_connection = True
            try:
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            return True
        if "status" not in fault and "body" not in fault and not fault.get("truncate"):
            return False  # a pure delay: answer normally afterwards
        status = int(fault.get("status", 200))
        body = fault.get("body", "")
        if isinstance(body, (dict, list)):
            body = json.dumps(body, ensure_ascii=False)
        data = body.encode("utf-8", "surrogateescape") if isinstance(body, str) else bytes(body)
        if fault.get("body_hex") is not None:
            data = bytes.fromhex(fault["body_hex"])
        self.send_response(status)
        self.send_header("Content-Type", fault.get("content_type", "application/json; charset=utf-8"))
        if fault.get("truncate"):
            self.send_header("Content-Length", str(len(data) + 100))
            self.end_headers()
            self.wfile.write(data)
            self.wfile.flush()
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)
            return True
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)
        return True

    def authorised(self):
        with self.control.lock:
            token = self.control.token
        if token is None:
            return True
        return self.headers.get("Authorization") == "Bearer " + token

    # ----- routes ---------------------------------------------------------------------------------------------

    def do_GET(self):
        self.record(b"")
        if self.path == "/_control":
            return self.send(200, self.control.state())
        if self.path.split("#")[0] == WEB_PAGE:
            return self.send(200, self.page(), "text/html; charset=utf-8")
        if not self.path.startswith(BASE + "/"):
            return self.send(404, {"detail": "Not found"})
        if not self.authorised():
            return self.send(401, {"detail": "Unauthorized"})
        if self.path == BASE + "/clients":
            if self.misbehave("clients"):
                return None
            with self.control.lock:
                clients = self.control.clients
            if isinstance(clients, RawBody):
                return self.send(200, str(clients))
            return self.send(200, clients)
        match = JOB_PATH.match(self.path)
        if match:
            if self.misbehave("job"):
                return None
            return self.job_state(match.group("id"))
        return self.send(404, {"detail": "Not found"})

    def read_body_digest(self):
        """Reads the body as it comes without keeping it: its size and SHA-256."""
        length = int(self.headers.get("Content-Length") or 0)
        digest = hashlib.sha256()
        received = 0
        while received < length:
            chunk = self.rfile.read(min(length - received, 1 << 20))
            if not chunk:
                break
            digest.update(chunk)
            received += len(chunk)
        return received, digest.hexdigest()

    def do_POST(self):
        with self.control.lock:
            digest_only = self.control.digest_only
        if digest_only and self.path == BASE + "/transcriptions/upload-async":
            return self.upload_digest()
        body = self.read_body()
        self.record(body)
        if self.path == "/_control":
            try:
                self.control.apply(json.loads(body or b"{}"))
            except (ValueError, TypeError, AttributeError) as error:
                return self.send(400, {"detail": str(error)})
            return self.send(200, self.control.state())
        if not self.path.startswith(BASE + "/"):
            return self.send(404, {"detail": "Not found"})
        if not self.authorised():
            return self.send(401, {"detail": "Unauthorized"})
        if self.path == BASE + "/transcriptions/upload-async":
            if self.misbehave("upload"):
                self.store_upload(body, accepted=False)
                return None
            return self.upload(body)
        return self.send(404, {"detail": "Not found"})

    # ----- uploads and jobs -----------------------------------------------------------------------------------

    def parse_multipart(self, body):
        """The form's parts through the standard e-mail parser, as a MIME document would be read."""
        content_type = self.headers.get("Content-Type", "")
        head = ("Content-Type: %s\r\nMIME-Version: 1.0\r\n\r\n" % content_type).encode("latin-1")
        message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)
        if not message.is_multipart():
            raise ValueError("not a multipart body")
        fields, files, order = {}, [], []
        for part in message.iter_parts():
            disposition = part.get("Content-Disposition", "")
            name = part.get_param("name", header="content-disposition")
            filename = part.get_param("filename", header="content-disposition")
            payload = part.get_payload(decode=True) or b""
            name = self.utf8(name)
            order.append(name)
            if filename is not None:
                files.append({
                    "name": name,
                    "filename": self.utf8(filename),
                    "content_type": part.get_content_type() if part.get("Content-Type") else None,
                    "payload": payload,
                    "disposition": self.utf8(str(disposition)),
                })
            else:
                fields[name] = payload.decode("utf-8", "surrogateescape")
        return fields, files, order, [d.__class__.__name__ for d in message.defects]

    @staticmethod
    def utf8(value):
        # Raw UTF-8 in a header arrives as surrogate escapes; turn it back into text.
        if value is None:
            return None
        if isinstance(value, tuple):  # RFC 2231 form
            value = email.utils.collapse_rfc2231_value(value)
        return value.encode("utf-8", "surrogateescape").decode("utf-8", "replace")

    def store_upload(self, body, accepted, fields=None, files=None, order=None, defects=None, job_id=None):
        with self.control.lock:
            self.control.upload_count += 1
            number = self.control.upload_count
        folder = os.path.join(self.server.data, "uploads", str(number))
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "body.bin"), "wb") as out:
            out.write(body)
        record = {
            "number": number,
            "accepted": accepted,
            "path": self.path,
            "content_type": self.headers.get("Content-Type"),
            "authorization": self.headers.get("Authorization"),
            "fields": fields or {},
            "order": order or [],
            "defects": defects or [],
            "job_id": job_id,
            "files": [],
        }
        for item in files or []:
            stored = os.path.basename(item["filename"]) or "file"
            with open(os.path.join(folder, "file-" + stored), "wb") as out:
                out.write(item["payload"])
            record["files"].append({
                "name": item["name"],
                "filename": item["filename"],
                "content_type": item["content_type"],
                "size": len(item["payload"]),
                "sha256": hashlib.sha256(item["payload"]).hexdigest(),
                "stored_as": "file-" + stored,
            })
        with open(os.path.join(folder, "fields.json"), "w", encoding="utf-8") as out:
            json.dump(record, out, ensure_ascii=False, indent=1)
        return number

    def upload(self, body):
        try:
            fields, files, order, defects = self.parse_multipart(body)
        except (ValueError, TypeError) as error:
            self.store_upload(body, accepted=False)
            return self.send(400, {"detail": "Corps multipart illisible : %s" % error})
        if not files or "title" not in fields:
            self.store_upload(body, accepted=False, fields=fields, files=files, order=order, defects=defects)
            return self.send(422, {"detail": "Champ manquant (file, title)"})
        job_id = "job-" + uuid.uuid4().hex[:12]
        number = self.store_upload(body, True, fields, files, order, defects, job_id)
        with self.control.lock:
            self.control.jobs[job_id] = {
                "upload": number,
                "title": fields.get("title", ""),
                "sequence": list(self.control.sequence),
                "polls": 0,
                "created": time.monotonic(),
            }
        return self.send(200, {"id": number, "job_id": job_id, "title": fields.get("title", "")})

    def upload_digest(self):
        size, sha256 = self.read_body_digest()
        self.record(b"")
        if not self.authorised():
            return self.send(401, {"detail": "Unauthorized"})
        if self.misbehave("upload"):
            return None
        job_id = "job-" + uuid.uuid4().hex[:12]
        with self.control.lock:
            self.control.upload_count += 1
            number = self.control.upload_count
            self.control.jobs[job_id] = {"upload": number, "title": "", "sequence": list(self.control.sequence),
                                         "polls": 0, "created": time.monotonic()}
        folder = os.path.join(self.server.data, "uploads", str(number))
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "fields.json"), "w", encoding="utf-8") as out:
            json.dump({"number": number, "accepted": True, "path": self.path, "job_id": job_id,
                       "content_type": self.headers.get("Content-Type"),
                       "authorization": self.headers.get("Authorization"),
                       "body_size": size, "body_sha256": sha256}, out, ensure_ascii=False, indent=1)
        return self.send(200, {"id": number, "job_id": job_id})

    def job_state(self, job_id):
        with self.control.lock:
            job = self.control.jobs.get(job_id)
            if job is None:
                step = None
            else:
                if self.control.advance == "time":
                    elapsed = time.monotonic() - job["created"]
                    index = int(elapsed // max(self.control.step_seconds, 0.001))
                else:
                    index = job["polls"]
                job["polls"] += 1
                sequence = job["sequence"] or DEFAULT_SEQUENCE
                step = sequence[min(index, len(sequence) - 1)]
        if step is None:
            return self.send(404, {"detail": "Tâche inconnue"})
        if isinstance(step, dict) and "http" in step:
            return self.send(int(step["http"]), step.get("body", ""))
        if isinstance(step, str):
            return self.send(200, {"job_id": job_id, "status": step, "error": None})
        return self.send(200, step)

    def page(self):
        with self.control.lock:
            count = self.control.upload_count
            jobs = dict(self.control.jobs)
        rows = []
        for job_id, job in sorted(jobs.items(), key=lambda item: item[1]["upload"]):
            rows.append("<li>%d — « %s » (%s)</li>" % (job["upload"], html.escape(job["title"]), html.escape(job_id)))
        return (
            "<!doctype html><html lang=\"fr\"><head><meta charset=\"utf-8\"><title>TaVREL</title></head><body>"
            "<h1>TaVREL — serveur de référence</h1><p>%d envoi(s) reçu(s).</p><h2 id=\"recordings\">"
            "Enregistrements</h2><ul>%s</ul></body></html>" % (count, "".join(rows))
        )


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=8642, help="0 picks a free port")
    parser.add_argument("--data", required=True, help="directory where everything received is kept")
    parser.add_argument("--token", default=None, help="require this bearer token (default: no check)")
    parser.add_argument("--advance", choices=("time", "poll"), default="time",
                        help="jobs move one step every --step-seconds (time) or at every poll (poll)")
    parser.add_argument("--step-seconds", type=float, default=25.0)
    parser.add_argument("--sequence", help="JSON list of job statuses (default: %s)" % json.dumps(DEFAULT_SEQUENCE))
    parser.add_argument("--fault", action="append", help="JSON fault object, as POST /_control's \"fault\"")
    parser.add_argument("--digest-only", action="store_true",
                        help="read uploads without keeping or parsing them: only their size and SHA-256")
    parser.add_argument("--tls-cert", help="serve HTTPS with this certificate (PEM)")
    parser.add_argument("--tls-key", help="the certificate's private key (PEM)")
    args = parser.parse_args()
    if args.host not in ("127.0.0.1", "localhost", "::1"):
        parser.error("the reference backend listens on loopback only")

    os.makedirs(os.path.join(args.data, "uploads"), exist_ok=True)
    server = ThreadingHTTPServer((args.host, args.port), Handler)
    server.daemon_threads = True
    server.control = Control(args)
    server.data = args.data
    server.log_lock = threading.Lock()
    scheme = "http"
    if args.tls_cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.tls_cert, args.tls_key)
        # The handshake happens in the request's thread: a client that refuses the certificate stops only
        # its own connection.
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
        scheme = "https"
    host, port = server.server_address[:2]
    print("listening on %s://%s:%d" % (scheme, host, port), flush=True)
    try:
        server.serve_forever(poll_interval=0.1)
    except KeyboardInterrupt:
        pass
    finally:
        server.server_close()


if __name__ == "__main__":
    main()
