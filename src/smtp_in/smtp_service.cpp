#include "smtp_in/smtp_service.h"

#include <QTcpServer>

#include "config/settings.h"
#include "dns/dns_cache.h"
#include "log/logs.h"
#include "log/dates.h"
#include "platform/desktop.h"
#include "smtp_in/connexion.h"

namespace postiq {

namespace {
// Room for a burst of mail programs connecting at once; each is taken or refused at once anyway.
constexpr int kListenBacklog = 128;
} // namespace

SmtpService::SmtpService(Settings& settings, Logs& logs, DnsCache& cache, ConnectionTables& tables, Queue& queue,
                         ServiceView* view, QObject* parent)
    : QObject(parent), settings_(settings), logs_(logs), cache_(cache), tables_(tables),
      view_(view), sessions_(logs, settings, tables, queue)
{
}

bool SmtpService::isListening() const { return tables_.SmtpListener().isListening(); }

void SmtpService::Demarrer()
{
    logs_.guarded("MOD:MODULE[Demarrer]", [this] {
        // The setting is a 16-bit number; ports above 32767 read back as their unsigned value.
        // 0 is passed on as it is: the system then picks a free port, as for any listener.
        const quint16 port = static_cast<quint16>(settings_.ActiveSettings.ListenPort);
        QTcpServer& listener = tables_.SmtpListener();
        if (listener.isListening())
            throw Fault(ErrNetwork, QStringLiteral("The SMTP service is already listening on port %1")
                                        .arg(listener.serverPort()));
        listener.setListenBacklogSize(kListenBacklog);
        if (!listener.listen(QHostAddress::AnyIPv4, port)) {
            switch (listener.serverError()) {
            case QAbstractSocket::AddressInUseError:
                reportPortUnavailable(port);
                return;
            case QAbstractSocket::SocketAccessError:
                reportPortUnavailable(port);
                logs_.desktop().diagnostic(
                    QStringLiteral("Port %1 needs privileges: listening on a port below 1024 "
                                   "requires root or the cap_net_bind_service capability; choose "
                                   "a port of 1024 or above in Postiq.ini otherwise.")
                        .arg(port));
                return;
            default:
                throw Fault(ErrNetwork, QStringLiteral("Cannot listen on port %1: %2")
                                            .arg(port)
                                            .arg(listener.errorString()));
            }
        }
        logs_.MailLog(GMTDate(logs_.clock()) + " Postiq Start of SMTP service");
        if (view_)
            view_->showServiceState(true);
        DNSOpenCache(cache_, logs_);
    });
}

void SmtpService::reportPortUnavailable(quint16 port)
{
    logs_.ErrorLog(GMTDate(logs_.clock()) + " Port " + QByteArray::number(port)
                   + " utilisé par une autre application");
}

void SmtpService::Arreter()
{
    logs_.guarded("MOD:MODULE[Arreter]", [this] {
        tables_.SmtpListener().close();
        logs_.MailLog(GMTDate(logs_.clock()) + " Postiq SMTP service stopped");
        if (view_)
            view_->showServiceState(false);
        DNSWriteCache(cache_, logs_);
    });
}

} // namespace postiq
