#pragma once

#include <QByteArray>
#include <new>

#include "log/logs.h"
#include "log/dates.h"
#include "smtp_in/connexion.h"

namespace postiq {

// The error trap of a delivery procedure: a fault ends the procedure and is written to the error
// log as the date stamp, the procedure's site name and the error, e.g.
// "Feb 05 2004 09:05:07 D:MODULE[VerifDeferred] error 6: Overflow". The program goes on.
template <typename Procedure>
void Trapped(Logs& logs, const char* site, Procedure&& procedure)
{
    try {
        procedure();
    } catch (const Fault& fault) {
        logs.ErrorLog(GMTDate(logs.clock()) + ' ' + site + " error " + QByteArray::number(fault.number())
                      + ": " + fault.description().toUtf8());
    } catch (const std::bad_alloc&) {
        logs.ErrorLog(GMTDate(logs.clock()) + ' ' + site + " error " + QByteArray::number(ErrOutOfMemory)
                      + ": Out of memory");
    }
}

// Runs a step of the delivery on OUT slot n. A fault (a queue file that cannot be written, moved
// or removed) frees the slot before it goes on to the caller's trap: the file stays where the step
// left it, and the next tick takes it again.
template <typename Step>
void ReleasingOnFault(ConnectionTables& tables, uint8_t n, Step&& step)
{
    try {
        step();
    } catch (...) {
        if (tables.CnxOut(n).Status() != 0)
            tables.ReleaseSmtpDistant(n);
        throw;
    }
}

// Runs `undo` when `step` throws, then lets the fault go on: what a step half did is taken back,
// so that a message never ends up queued twice.
template <typename Step, typename Undo>
void UndoingOnFault(Step&& step, Undo&& undo)
{
    try {
        step();
    } catch (...) {
        try {
            undo();
        } catch (const Fault&) {
            // The first fault is the one to report.
        }
        throw;
    }
}

} // namespace postiq
