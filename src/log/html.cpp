#include "log/html.h"

namespace postiq {

QByteArray HtmlEscape(QByteArray text)
{
    text.replace("<", "&lt;");
    text.replace(">", "&gt;");
    text.replace("\r\n", "<BR>");
    return text;
}

} // namespace postiq
