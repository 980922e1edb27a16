#include "core/connection_state_text.h"

#include "delivery/outbound_session.h"
#include "smtp_in/inbound_session.h"

namespace postiq {

QString connectionStateText(const QByteArray& cnxType, int32_t status)
{
    if (cnxType == "IN") {
        switch (status) {
        case Greeted: return QStringLiteral("Accueil envoyé, attente HELO");
        case HeloDone: return QStringLiteral("Attente MAIL FROM");
        case SenderOk: return QStringLiteral("Attente RCPT TO / DATA");
        case InData: return QStringLiteral("Réception du message");
        case Queued: return QStringLiteral("Message enregistré");
        case Quitting: return QStringLiteral("Fermeture");
        default: break;
        }
    } else {
        switch (status) {
        case Taken: return QStringLiteral("Message chargé");
        case Connecting: return QStringLiteral("Connexion au serveur");
        case HeloSent: return QStringLiteral("HELO envoyé");
        case MailSent: return QStringLiteral("MAIL FROM / RCPT TO envoyé");
        case LastRcptSent: return QStringLiteral("Destinataires envoyés");
        case DataSent: return QStringLiteral("DATA envoyé");
        case Writing: return QStringLiteral("Envoi du message");
        case Written: return QStringLiteral("Attente de confirmation");
        case Finished: return QStringLiteral("QUIT envoyé");
        case EhloSent: return QStringLiteral("EHLO envoyé");
        case StartTlsSent: return QStringLiteral("STARTTLS envoyé");
        case TlsHandshake: return QStringLiteral("Négociation TLS");
        case SecureEhloSent: return QStringLiteral("EHLO envoyé (TLS)");
        case AuthSent: return QStringLiteral("Authentification envoyée");
        case AuthLoginSent: return QStringLiteral("AUTH LOGIN envoyé");
        case AuthUserSent: return QStringLiteral("Utilisateur envoyé");
        case ResetSent: return QStringLiteral("RSET envoyé (message suivant)");
        case DataUnwanted: return QStringLiteral("Aucun destinataire accepté");
        case Held: return QStringLiteral("Connexion ouverte, message suivant");
        default: break;
        }
    }
    return QStringLiteral("Etat %1").arg(status);
}

} // namespace postiq
