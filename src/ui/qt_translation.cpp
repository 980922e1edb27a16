#include "ui/qt_translation.h"

#include <QCoreApplication>
#include <QLibraryInfo>

namespace postiq {

bool QtTranslation::follow(const QString& language)
{
    if (translator_) {
        QCoreApplication::removeTranslator(translator_.get());
        translator_.reset();
    }
    if (language.isEmpty() || language == QLatin1String("en"))
        return false;
    auto translator = std::make_unique<QTranslator>();
    if (!translator->load(QStringLiteral("qtbase_") + language, QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        return false;
    QCoreApplication::installTranslator(translator.get());
    translator_ = std::move(translator);
    return true;
}

} // namespace postiq
