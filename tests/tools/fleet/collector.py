"""A stand-in for a collector of OpenTelemetry, over real HTTP: it takes what a collector takes, and
misbehaves as it is told to. As a program it says where it listens, and counts spans until its input
ends."""

import gzip
import importlib
import json
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


def load_messages():
    """The module of the messages, which protoc makes of their definitions."""
    with tempfile.TemporaryDirectory() as folder:
        here = pathlib.Path(__file__).parent
        subprocess.run(["protoc", f"-I{here}", f"--python_out={folder}", "collector.proto"], check=True)
        sys.path.insert(0, folder)
        try:
            return importlib.import_module("collector_pb2")
        finally:
            sys.path.remove(folder)


def value_of(value):
    """The value of an attribute in JSON, as Python has it."""
    (kind, held), = value.items()
    return int(held) if kind == "intValue" else held


def spans_of_json(request):
    """The spans of a request in JSON, flat, with the resource that each belongs to."""
    for resource_spans in request["resourceSpans"]:
        resource = {a["key"]: value_of(a["value"]) for a in resource_spans["resource"]["attributes"]}
        for scope_spans in resource_spans["scopeSpans"]:
            for span in scope_spans["spans"]:
                yield {"trace": span["traceId"], "id": span["spanId"], "parent": span.get("parentSpanId", ""),
                       "name": span["name"], "kind": span["kind"],
                       "start": int(span["startTimeUnixNano"]), "end": int(span["endTimeUnixNano"]),
                       "attributes": {a["key"]: value_of(a["value"]) for a in span.get("attributes", [])},
                       "events": [(int(e["timeUnixNano"]), e["name"],
                                   {a["key"]: value_of(a["value"]) for a in e["attributes"]})
                                  for e in span.get("events", [])],
                       "resource": resource}


def spans_of_message(request):
    def attributes(keys):
        return {a.key: getattr(a.value, a.value.WhichOneof("value")) for a in keys}
    for resource_spans in request.resource_spans:
        resource = attributes(resource_spans.resource.attributes)
        for scope_spans in resource_spans.scope_spans:
            for span in scope_spans.spans:
                yield {"trace": span.trace_id.hex(), "id": span.span_id.hex(), "parent": span.parent_span_id.hex(),
                       "name": span.name, "kind": span.kind,
                       "start": span.start_time_unix_nano, "end": span.end_time_unix_nano,
                       "attributes": attributes(span.attributes),
                       "events": [(e.time_unix_nano, e.name, attributes(e.attributes)) for e in span.events],
                       "resource": resource}


class Collector:
    """Use it in a `with`. `script` holds what becomes of the next requests, one after the other; then
    all are taken. ok; close, without an answer; stall, until it goes; STATUS; STATUS retry SECONDS;
    partial COUNT."""

    def __init__(self, port=0, most_bytes=None, keeps_spans=True):
        self.script = []
        self.requests = []  # what became of each, its size and its time
        self.spans = []
        self.count = 0
        self.span_count = 0
        self._keeps_spans = keeps_spans
        self._messages = load_messages()
        self._lock = threading.Lock()
        self._gone = threading.Event()
        self._connections = []
        collector = self

        class Handler(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *_):
                pass

            def setup(self):
                super().setup()
                collector._connections.append(self.connection)

            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                if self.headers.get("Content-Encoding") == "gzip":
                    body = gzip.decompress(body)
                with collector._lock:
                    collector.count += 1
                    what = collector.script.pop(0) if collector.script else "ok"
                if most_bytes and len(body) > most_bytes:
                    what = "413"
                collector.requests.append((what, len(body), time.monotonic(), dict(self.headers), self.path))
                self.act(what, body)

            def act(self, what, body):
                if what == "stall":
                    collector._gone.wait()
                    what = "close"
                if what == "close":
                    self.close_connection = True
                    return
                words = what.split()
                answer = b""
                if words[0] in ("ok", "partial"):
                    rejected = int(words[1]) if words[0] == "partial" else 0
                    answer = collector.take(body, self.headers["Content-Type"], rejected)
                self.send_response(200 if words[0] in ("ok", "partial") else int(words[0]))
                if "retry" in words:
                    self.send_header("Retry-After", words[-1])
                self.send_header("Content-Type", self.headers["Content-Type"])
                self.send_header("Content-Length", str(len(answer)))
                try:
                    self.end_headers()
                    self.wfile.write(answer)
                except OSError:
                    self.close_connection = True # nobody waits for it any more

        self._server = ThreadingHTTPServer(("127.0.0.1", port), Handler)
        self._server.daemon_threads = True
        self.port = self._server.server_address[1]
        self.url = f"http://127.0.0.1:{self.port}"
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,), daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._gone.set()
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
        for connection in self._connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass # it has ended before

    def take(self, body, content_type, rejected):
        is_json = content_type == "application/json"
        if is_json:
            spans = list(spans_of_json(json.loads(body)))
        else:
            assert content_type == "application/x-protobuf", content_type
            request = self._messages.Request.FromString(body)
            if not self._keeps_spans: # Python would be the slowest of all
                self.span_count += sum(len(s.spans) for r in request.resource_spans for s in r.scope_spans)
                return b""
            spans = list(spans_of_message(request))
        with self._lock:
            self.spans += spans[:len(spans) - rejected]
        if is_json:
            return json.dumps({"partialSuccess": {"rejectedSpans": str(rejected), "errorMessage": "no room"}}
                              if rejected else {}).encode()
        response = self._messages.Response()
        if rejected:
            response.partial_success.rejected_spans = rejected
            response.partial_success.error_message = "no room"
        return response.SerializeToString()

    def wait_for(self, condition, seconds=60):
        """Waits until condition(self) holds."""
        end = time.monotonic() + seconds
        while not condition(self):
            assert time.monotonic() < end, f"{len(self.spans)} spans, {[r[0] for r in self.requests]}"
            time.sleep(0.01)


if __name__ == "__main__":
    with Collector(keeps_spans=False) as it:
        print(it.url, flush=True)
        sys.stdin.read()
        print(f"{it.span_count} spans")
