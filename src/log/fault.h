#pragma once

#include <QString>
#include <stdexcept>

namespace postiq {

// Numbers carried by a program-error report. Each names the kind of fault, so that a report read
// by a user or a developer says what went wrong without a debugger.
enum ErrorNumber : int {
    ErrInvalidCall = 5,      // an argument outside what the procedure accepts
    ErrOverflow = 6,         // a number that does not fit its fixed-width type
    ErrOutOfMemory = 7,      // a length that cannot be allocated
    ErrOutOfRange = 9,       // an index outside a list
    ErrTypeMismatch = 13,    // text that is not the number expected
    ErrBadFileFormat = 54,   // a file whose contents do not follow its format
    ErrFileNotFound = 53,    // a file that must exist does not
    ErrPastEndOfFile = 62,   // a file that ends before its contents do
    ErrAccessDenied = 70,    // a file or folder that cannot be written
    ErrFileAccess = 75,      // any other failure of a file operation
    ErrNetwork = 10000,      // a socket operation that failed unexpectedly
};

// An unexpected failure inside a procedure. The procedure's handler turns it into the fatal
// program-error report under its own error-site label.
class Fault : public std::runtime_error {
public:
    Fault(int number, const QString& description)
        : std::runtime_error(description.toStdString()), number_(number), description_(description)
    {
    }
    int number() const { return number_; }
    const QString& description() const { return description_; }

private:
    int number_;
    QString description_;
};

} // namespace postiq
