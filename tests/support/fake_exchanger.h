#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <deque>
#include <memory>

class QTcpSocket;

namespace postiq::test {

// What the exchanger does at one step of a session.
struct Step {
    enum Action {
        Reply,         // send the text
        ReplyAndClose, // send the text, then close (a 421 or 450 that hangs up)
        CloseInstead,  // close without a word
        Silent,        // say nothing, now or later, and keep the connection open
    };
    Action action = Reply;
    QByteArray text; // without its final CR LF; several lines are joined with CR LF
    int delayMs = 0; // waited before the step is carried out
};

inline Step reply(const QByteArray& text, int delayMs = 0) { return {Step::Reply, text, delayMs}; }
inline Step replyAndClose(const QByteArray& text, int delayMs = 0) { return {Step::ReplyAndClose, text, delayMs}; }
inline Step closeInstead(int delayMs = 0) { return {Step::CloseInstead, {}, delayMs}; }
inline Step silent() { return {Step::Silent, {}, 0}; }

// How a mail exchanger answers one session, step by step.
struct ExchangerScript {
    Step greeting = reply("220 mx.fake.example ESMTP ready");
    Step helo = reply("250 mx.fake.example");
    Step mail = reply("250 2.1.0 Sender OK");
    QList<Step> rcpt;                              // by recipient index over the connection, from 0
    Step otherRcpt = reply("250 2.1.5 Recipient OK"); // for the indexes beyond `rcpt`
    Step data = reply("354 Start mail input; end with <CRLF>.<CRLF>");
    // DATA after every RCPT of the transaction was refused (pipelined commands): refused, as it must be.
    Step dataWithoutRecipients = reply("554 5.5.1 Error: no valid recipients");
    Step endOfData = reply("250 2.0.0 Queued as FAKE");
    Step quit = reply("221 2.0.0 Bye");
    QList<Step> rset;                              // by RSET index over the connection, from 0
    Step otherRset = reply("250 2.0.0 Reset");
    Step unknown = reply("500 5.5.2 Command not recognized");

    const Step& forRcpt(int index) const { return index < rcpt.size() ? rcpt[index] : otherRcpt; }
    const Step& forRset(int index) const { return index < rset.size() ? rset[index] : otherRset; }
};

// What one session brought, in the order it came.
struct ExchangerSession {
    QList<QByteArray> lines;    // every line received, commands and data alike, with its own line end
    QList<QByteArray> commands; // the lines outside the data, without their line ends
    QByteArray body;            // the data as received up to the lone dot, with the leading dots removed
    QList<QByteArray> bodies;   // the same, one per transaction that reached its lone dot
    QList<QByteArray> reads;    // the bytes of each read, as they came
    bool dataEnded = false;     // the lone dot came
    bool closed = false;        // the connection is over, whoever ended it
    QByteArray unfinished;      // bytes after the last line end, when the connection ended
};

// A mail exchanger on the test's event loop: each session is answered by a script and recorded.
// A bare LF ends a line as well as CR LF, and a line that is only a dot ends the data however it
// ends, so that a sender that lets either slip through is caught ending its message early.
class FakeExchanger : public QObject {
public:
    explicit FakeExchanger(ExchangerScript script = {});
    ~FakeExchanger() override;

    // Listens on `address` (any loop-back address) and `port`; 0 picks a free port.
    bool listen(const QHostAddress& address = QHostAddress::LocalHost, quint16 port = 0);
    quint16 port() const { return server_.serverPort(); }

    // The script of the sessions to come; `setScriptFor` replaces it for the session of that number (from 0).
    void setScript(const ExchangerScript& script) { script_ = script; }
    void setScriptFor(int session, const ExchangerScript& script) { scripts_[session] = script; }

    int sessionCount() const { return int(sessions_.size()); }
    const ExchangerSession& session(int index) const;
    int openSessions() const;

private:
    struct Connection;
    void accept();
    void receive(Connection& connection);
    void handleLine(Connection& connection, const QByteArray& line);
    void perform(Connection& connection, const Step& step);
    void runQueue(Connection& connection);
    void ended(Connection& connection);

    QTcpServer server_;
    ExchangerScript script_;
    QMap<int, ExchangerScript> scripts_;
    std::deque<std::unique_ptr<Connection>> sessions_; // stable addresses while sockets call back
};

} // namespace postiq::test
