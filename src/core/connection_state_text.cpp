#include "core/connection_state_text.h"

#include "delivery/outbound_session.h"
#include "language/language.h"
#include "smtp_in/inbound_session.h"

namespace postiq {

namespace {

// Each state in words: the language file's TXT_ key and the built-in French.
struct StateWords {
    bool inbound;
    int32_t status;
    const char* key;
    const char* french;
};

constexpr StateWords kStates[] = {
    {true, Greeted, "stateGreeted", "Accueil envoyé, attente HELO"},
    {true, HeloDone, "stateHeloDone", "Attente MAIL FROM"},
    {true, SenderOk, "stateSenderOk", "Attente RCPT TO / DATA"},
    {true, InData, "stateInData", "Réception du message"},
    {true, Queued, "stateQueued", "Message enregistré"},
    {true, Quitting, "stateQuitting", "Fermeture"},
    {false, Taken, "stateTaken", "Message chargé"},
    {false, Connecting, "stateConnecting", "Connexion au serveur"},
    {false, HeloSent, "stateHeloSent", "HELO envoyé"},
    {false, MailSent, "stateMailSent", "MAIL FROM / RCPT TO envoyé"},
    {false, LastRcptSent, "stateLastRcptSent", "Destinataires envoyés"},
    {false, DataSent, "stateDataSent", "DATA envoyé"},
    {false, Writing, "stateWriting", "Envoi du message"},
    {false, Written, "stateWritten", "Attente de confirmation"},
    {false, Finished, "stateFinished", "QUIT envoyé"},
    {false, EhloSent, "stateEhloSent", "EHLO envoyé"},
    {false, StartTlsSent, "stateStartTlsSent", "STARTTLS envoyé"},
    {false, TlsHandshake, "stateTlsHandshake", "Négociation TLS"},
    {false, SecureEhloSent, "stateSecureEhloSent", "EHLO envoyé (TLS)"},
    {false, AuthSent, "stateAuthSent", "Authentification envoyée"},
    {false, AuthLoginSent, "stateAuthLoginSent", "AUTH LOGIN envoyé"},
    {false, AuthUserSent, "stateAuthUserSent", "Utilisateur envoyé"},
    {false, ResetSent, "stateResetSent", "RSET envoyé (message suivant)"},
    {false, DataUnwanted, "stateDataUnwanted", "Aucun destinataire accepté"},
    {false, Held, "stateHeld", "Connexion ouverte, message suivant"},
};

} // namespace

QString connectionStateText(const QByteArray& cnxType, int32_t status, const LanguageTable& language)
{
    const bool inbound = cnxType == "IN";
    for (const StateWords& words : kStates) {
        if (words.inbound == inbound && words.status == status)
            return language.text(QLatin1String(words.key), QString::fromUtf8(words.french));
    }
    return language.text(QStringLiteral("stateOther"), QStringLiteral("Etat %1")).arg(status);
}

} // namespace postiq
