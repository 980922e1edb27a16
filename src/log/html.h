#pragma once

#include <QByteArray>

namespace postiq {

// Makes text safe to show in the HTML debug log: "<" and ">" are escaped, CR LF becomes "<BR>".
// "&" is left as it is.
QByteArray HtmlEscape(QByteArray text);

} // namespace postiq
