#!/usr/bin/python3
"""A provider's submission server for the route checks: aiosmtpd on the given address with TLS
and a login, or a bare server that misbehaves. Prints "ready" once listening, and stops when the
test closes its standard input.

  route_check_server.py HOST PORT CERT KEY USER PASSWORD [--implicit | --no-starttls | --silent | --garbage | --vanish | --busy]

By default STARTTLS is offered and required before AUTH PLAIN or LOGIN; --implicit speaks TLS from
the first byte (its TLS is all the login needs); --no-starttls offers neither TLS nor a login; --silent accepts and never says a
word; --garbage greets with bytes that are no SMTP; --vanish closes each connection at once;
--busy greets with 421."""
import asyncio
import logging
import ssl
import sys
import warnings

# A client that gives up halfway (as the checks of bad certificates do) is no news here.
logging.getLogger("mail.log").disabled = True
warnings.filterwarnings("ignore", category=DeprecationWarning)

host, port, cert, key, user, password = sys.argv[1:7]
port = int(port)
mode = sys.argv[7] if len(sys.argv) > 7 else ""


def run_aiosmtpd():
    from aiosmtpd.controller import Controller
    from aiosmtpd.smtp import AuthResult, LoginPassword

    def authenticator(server, session, envelope, mechanism, auth_data):
        good = (isinstance(auth_data, LoginPassword) and auth_data.login == user.encode()
                and auth_data.password == password.encode())
        return AuthResult(success=good, handled=False)

    class Handler:
        async def handle_DATA(self, server, session, envelope):
            return "554 5.7.1 a check sends no message"

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    options = dict(ready_timeout=10.0, hostname=host, port=port, server_hostname="provider.aiosmtpd.test", authenticator=authenticator,
                   auth_require_tls=mode == "")
    if mode == "--implicit":
        options.update(ssl_context=context)
    elif mode != "--no-starttls":
        options.update(tls_context=context, require_starttls=True)
    controller = Controller(Handler(), **options)
    controller.start()
    print("ready", flush=True)
    try:
        sys.stdin.read()
    finally:
        controller.stop()


async def misbehave(reader, writer):
    if mode == "--vanish":
        writer.close()
        return
    if mode == "--garbage":
        writer.write(b"\x00\xff\xfeHELLO? this is no mail server\r\n")
        await writer.drain()
    if mode == "--busy":
        writer.write(b"421 4.3.2 Too busy, come back later\r\n")
        await writer.drain()
    await reader.read()  # until the client goes
    writer.close()


async def run_bare():
    server = await asyncio.start_server(misbehave, host, port)
    print("ready", flush=True)
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)
    server.close()


if mode in ("--silent", "--garbage", "--vanish", "--busy"):
    asyncio.run(run_bare())
else:
    run_aiosmtpd()
