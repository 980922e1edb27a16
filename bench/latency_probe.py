#!/usr/bin/env python3
"""Accept-to-delivered latency: sends messages to a relay one at a time and waits, after each 250 to
the end of the text, until the relay has handed that message to a sink of this script's, which
timestamps its arrival. Prints "p50_ms p99_ms max_ms lost" (lost: not arrived within the timeout).

Usage: latency_probe.py RELAY_HOST:PORT SINK_HOST:PORT COUNT [TIMEOUT_SECONDS]
The relay must send everything to the sink (its fixed server)."""

import asyncio
import math
import socket
import sys
import time


def host_port(text):
    host, port = text.rsplit(":", 1)
    return host, int(port)


class Sink:
    """An SMTP server that takes every message and notes when each token's text ended."""

    def __init__(self):
        self.arrivals = {}  # token -> monotonic time of the end of its text
        self.waiters = {}  # token -> future

    async def session(self, reader, writer):
        try:
            writer.write(b"220 probe ESMTP\r\n")
            while True:
                line = await reader.readline()
                if not line:
                    return
                verb = line[:4].upper()
                if verb in (b"EHLO",):
                    writer.write(b"250-probe\r\n250-PIPELINING\r\n250-8BITMIME\r\n250 SIZE 0\r\n")
                elif verb == b"DATA":
                    writer.write(b"354 go on\r\n")
                    await writer.drain()
                    token = None
                    while True:
                        text_line = await reader.readline()
                        if not text_line:
                            return
                        if text_line in (b".\r\n", b".\n"):
                            break
                        if token is None and text_line.startswith(b"X-Probe: "):
                            token = text_line[9:].strip().decode()
                    now = time.monotonic()
                    writer.write(b"250 taken\r\n")
                    if token is not None:
                        self.arrivals[token] = now
                        waiter = self.waiters.get(token)
                        if waiter is not None and not waiter.done():
                            waiter.set_result(now)
                elif verb == b"QUIT":
                    writer.write(b"221 bye\r\n")
                    await writer.drain()
                    return
                else:  # HELO, MAIL, RCPT, RSET, NOOP
                    writer.write(b"250 ok\r\n")
                await writer.drain()
        except (ConnectionError, asyncio.IncompleteReadError):
            pass
        finally:
            writer.close()


async def expect(reader, code):
    while True:
        line = await reader.readline()
        if not line:
            raise ConnectionError("the relay closed the connection")
        if line[3:4] != b"-":
            if not line.startswith(code):
                raise ConnectionError("unexpected reply: " + line.decode(errors="replace").strip())
            return


async def send_one(relay, token):
    """One SMTP session to the relay; returns the monotonic time of the 250 to the text."""
    reader, writer = await asyncio.open_connection(*relay)
    try:
        await expect(reader, b"220")
        for command, code in ((b"EHLO probe.example", b"250"), (b"MAIL FROM:<probe@sender.example>", b"250"),
                              (b"RCPT TO:<someone@receiver.example>", b"250"), (b"DATA", b"354")):
            writer.write(command + b"\r\n")
            await writer.drain()
            await expect(reader, code)
        writer.write(b"From: probe@sender.example\r\nTo: someone@receiver.example\r\nSubject: probe\r\n"
                     b"X-Probe: " + token.encode() + b"\r\n\r\n" + b"A probe.\r\n" * 20 + b".\r\n")
        await writer.drain()
        await expect(reader, b"250")
        accepted = time.monotonic()
        writer.write(b"QUIT\r\n")
        await writer.drain()
        return accepted
    finally:
        writer.close()


def percentile(sorted_values, fraction):
    """Nearest rank: the smallest value with at least `fraction` of the values at or below it."""
    rank = max(1, math.ceil(fraction * len(sorted_values)))
    return sorted_values[rank - 1]


async def main():
    relay, sink_address = host_port(sys.argv[1]), host_port(sys.argv[2])
    count = int(sys.argv[3])
    timeout = float(sys.argv[4]) if len(sys.argv) > 4 else 30.0
    sink = Sink()
    server = await asyncio.start_server(sink.session, *sink_address, family=socket.AF_INET, reuse_address=True)
    latencies, lost = [], 0
    loop = asyncio.get_running_loop()
    for i in range(count):
        token = "%d-%d" % (time.monotonic_ns(), i)
        sink.waiters[token] = loop.create_future()
        accepted = await send_one(relay, token)
        try:
            arrived = await asyncio.wait_for(asyncio.shield(sink.waiters[token]), timeout)
            latencies.append(max(0.0, arrived - accepted))
        except asyncio.TimeoutError:
            lost += 1
    server.close()
    if not latencies:
        print("- - - %d" % lost)
        return
    latencies.sort()
    print("%.1f %.1f %.1f %d" % (percentile(latencies, 0.5) * 1000, percentile(latencies, 0.99) * 1000,
                                 latencies[-1] * 1000, lost))


if __name__ == "__main__":
    asyncio.run(main())
