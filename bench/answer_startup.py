#!/usr/bin/env python3
"""Measures the command-line answer test against a local streaming server.

Reports, over several runs, the time from process start to the answer request arriving at the server,
the time to the whole answer, and the process's peak resident memory.

    bench/answer_startup.py [--binary build/tallowind] [--runs 20]
"""
import argparse
import http.server
import os
import resource
import statistics
import subprocess
import threading
import time

arrivals = []


class AnswerHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        arrivals.append(time.monotonic())
        self.rfile.read(int(self.headers.get("content-length", "0")))
        self.send_response(200)
        self.send_header("content-type", "text/event-stream")
        self.send_header("transfer-encoding", "chunked")
        self.end_headers()
        for piece in ("I led ", "the migration ", "of our build."):
            line = ('data: {"type":"text","text":"%s"}\n' % piece).encode()
            self.wfile.write(b"%x\r\n%s\r\n" % (len(line), line))
            self.wfile.flush()
        self.wfile.write(b"0\r\n\r\n")

    def log_message(self, *args):
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--binary", default=os.path.join(os.path.dirname(__file__), "..", "build", "tallowind"))
    parser.add_argument("--runs", type=int, default=20)
    args = parser.parse_args()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), AnswerHandler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    env = dict(os.environ, TALLOWIND_SERVER="http://127.0.0.1:%d" % server.server_address[1],
               TALLOWIND_TOKEN="bench", TALLOWIND_TOKEN_STORE="file", QT_QPA_PLATFORM="offscreen")

    to_request, to_done, peaks = [], [], []
    for _ in range(args.runs):
        before = len(arrivals)
        start = time.monotonic()
        child = subprocess.Popen([args.binary, "--test-answer", "Tell me about a project you led."], env=env,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        end = time.monotonic()
        if status != 0 or len(arrivals) != before + 1:
            raise SystemExit("run failed with status %d" % status)
        to_request.append((arrivals[-1] - start) * 1000)
        to_done.append((end - start) * 1000)
        peaks.append(usage.ru_maxrss / 1024)  # kilobytes on Linux

    def summary(values, unit):
        return "median %.1f %s, min %.1f, max %.1f" % (statistics.median(values), unit, min(values), max(values))

    print("runs: %d" % args.runs)
    print("process start -> request at server: " + summary(to_request, "ms"))
    print("process start -> process exit:      " + summary(to_done, "ms"))
    print("peak resident memory:               " + summary(peaks, "MiB"))
    server.shutdown()


if __name__ == "__main__":
    main()
