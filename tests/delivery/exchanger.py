#!/usr/bin/python3
"""A real mail exchanger for the delivery tests: aiosmtpd on the given address, saving each
message it accepts as N.eml (the content as received) and N.env (sender, recipients, whether
the session was encrypted, the MAIL parameters, the client's port, one per line). Prints "ready" once listening.

  exchanger.py HOST PORT DIR [--tls CERT KEY] [--unknown a@b,c@d] [--greylist] [--trickle]
               [--auth USER PASSWORD] [--hangup N] [--slow SECONDS]

--tls offers STARTTLS; --unknown refuses those recipients with 550 5.1.1; --greylist answers
every RCPT with 450 and keeps the connection open; --trickle is no aiosmtpd at all but a bare
server that writes its replies one byte at a time, multi-line EHLO reply included.
--auth makes it a provider's submission server: STARTTLS and that login required before MAIL
(each login tried is a line of DIR/logins: "ok USER" or "bad USER"); --hangup cuts the first N
connections at their MAIL command; --slow waits that long before it answers the end of the data."""
import asyncio
import os
import ssl
import sys
import time
import warnings

# aiosmtpd sets its deprecated login_data itself after every login: not the test's concern.
warnings.filterwarnings("ignore", message="Session.login_data")

args = sys.argv[1:]
host, port, folder = args[0], int(args[1]), args[2]
options = args[3:]


def option(name, count=1):
    if name not in options:
        return None
    at = options.index(name)
    return options[at + 1:at + 1 + count] if count else True


def save(mail_from, rcpt_tos, content, encrypted, mail_options, peer_port=0, login=""):
    count = len([f for f in os.listdir(folder) if f.endswith(".eml")])
    base = os.path.join(folder, str(count))
    with open(base + ".env.tmp", "wb") as env:
        env.write(b"from=" + mail_from.encode() + b"\n")
        for rcpt in rcpt_tos:
            env.write(b"to=" + rcpt.encode() + b"\n")
        env.write(b"tls=" + (b"yes" if encrypted else b"no") + b"\n")
        env.write(b"options=" + " ".join(mail_options).encode() + b"\n")
        env.write(b"peer=" + str(peer_port).encode() + b"\n")
        env.write(b"login=" + login.encode() + b"\n")
    with open(base + ".eml", "wb") as eml:
        eml.write(content)
    os.rename(base + ".env.tmp", base + ".env")


def run_aiosmtpd():
    from aiosmtpd.controller import Controller

    unknown = set((option("--unknown") or [""])[0].split(",")) - {""}
    greylist = option("--greylist", 0)
    auth = option("--auth", 2)
    hangups = [int((option("--hangup") or ["0"])[0])]
    slow = float((option("--slow") or ["0"])[0])

    def authenticator(server, session, envelope, mechanism, auth_data):
        from aiosmtpd.smtp import AuthResult, LoginPassword
        if not isinstance(auth_data, LoginPassword):
            return AuthResult(success=False, handled=False)
        login = auth_data.login.decode(errors="replace")
        success = [auth_data.login, auth_data.password] == [auth[0].encode(), auth[1].encode()]
        with open(os.path.join(folder, "logins"), "a") as logins:
            logins.write(("ok " if success else "bad ") + login + "\n")
        return AuthResult(success=success, handled=False, auth_data=login if success else None)

    class Handler:
        async def handle_MAIL(self, server, session, envelope, address, mail_options):
            if hangups[0] > 0:
                hangups[0] -= 1
                server.transport.abort()
                return "421 4.3.0 gone"
            envelope.mail_from = address
            envelope.mail_options.extend(mail_options)
            return "250 OK"

        async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
            if greylist:
                return "450 4.2.0 Greylisted, try again later"
            if address in unknown:
                return "550 5.1.1 User unknown"
            envelope.rcpt_tos.append(address)
            return "250 OK"

        async def handle_DATA(self, server, session, envelope):
            if slow:
                await asyncio.sleep(slow)
            save(envelope.mail_from, envelope.rcpt_tos, envelope.original_content, session.ssl is not None,
                 envelope.mail_options, session.peer[1], session.auth_data or "")
            return "250 2.0.0 Saved"

    context = None
    tls = option("--tls", 2)
    if tls:
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(tls[0], tls[1])
    extra = {}
    if auth:
        extra = dict(authenticator=authenticator, auth_required=True, auth_require_tls=True, require_starttls=True)
    else:
        extra = dict(require_starttls=False)
    controller = Controller(Handler(), hostname=host, port=port, tls_context=context, decode_data=False,
                            server_hostname="mx.aiosmtpd.test", **extra)
    controller.start()
    print("ready", flush=True)
    try:
        sys.stdin.read()  # until the test closes its end
    finally:
        controller.stop()


async def trickle(reader, writer):
    async def say(text):
        for byte in text.encode():
            writer.write(bytes([byte]))
            await writer.drain()
            await asyncio.sleep(0.002)

    await say("220-mx.trickle.test\r\n220 ESMTP here\r\n")
    content, in_data, sender, rcpts = b"", False, "", []
    while True:
        line = await reader.readline()
        if not line:
            return
        if in_data:
            if line == b".\r\n":
                in_data = False
                save(sender, rcpts, content, False, [])
                await say("250-queued\r\n250 2.0.0 as TRICKLE\r\n")
            else:
                content += line[1:] if line.startswith(b".") else line
            continue
        verb = line[:4].upper()
        if verb == b"EHLO":
            await say("250-mx.trickle.test\r\n250-PIPELINING\r\n250-SIZE 1000000\r\n250 8BITMIME\r\n")
        elif verb == b"MAIL":
            sender = line[10:].split(b">")[0].lstrip(b"<").decode()
            await say("250 2.1.0 Ok\r\n")
        elif verb == b"RCPT":
            rcpts.append(line[8:].split(b">")[0].lstrip(b"<").decode())
            await say("250 2.1.5 Ok\r\n")
        elif verb == b"DATA":
            in_data = True
            await say("354 End data with <CR><LF>.<CR><LF>\r\n")
        elif verb == b"QUIT":
            await say("221 Bye\r\n")
            writer.close()
            return
        else:
            await say("502 5.5.2 Error\r\n")


async def run_trickle():
    server = await asyncio.start_server(trickle, host, port)
    print("ready", flush=True)
    loop = asyncio.get_running_loop()
    await loop.run_in_executor(None, sys.stdin.read)
    server.close()


if option("--trickle", 0):
    asyncio.run(run_trickle())
else:
    run_aiosmtpd()
