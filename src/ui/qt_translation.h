#pragma once

#include <QString>
#include <QTranslator>
#include <memory>

namespace postiq {

// Qt's own words (the buttons of the message boxes, "Oui"/"Non", the context menus of the text
// fields) in the chosen language, from the translations installed with Qt.
class QtTranslation {
public:
    // Replaces the translation in force with the one of `language`. English is Qt's own; a
    // language without a Qt translation leaves Qt's words in English. True when one was loaded.
    bool follow(const QString& language);

private:
    std::unique_ptr<QTranslator> translator_;
};

} // namespace postiq
