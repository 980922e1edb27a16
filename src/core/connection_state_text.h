#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace postiq {

// A slot's protocol state in words for the active-connections grid ("IN" or "OUT" slots have
// their own states); an unknown state shows its number.
QString connectionStateText(const QByteArray& cnxType, int32_t status);

} // namespace postiq
