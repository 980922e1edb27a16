#pragma once

#include <QByteArray>
#include <new>

#include "log/logs.h"
#include "notify/dates.h"

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

} // namespace postiq
