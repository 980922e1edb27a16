#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace postiq {

class LanguageTable;

// A slot's protocol state in words for the active-connections grid ("IN" or "OUT" slots have
// their own states), in the chosen language; an unknown state shows its number.
QString connectionStateText(const QByteArray& cnxType, int32_t status, const LanguageTable& language);

} // namespace postiq
