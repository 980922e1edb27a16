#include "ui/relabel.h"

#include <QAbstractButton>
#include <QAction>
#include <QGroupBox>
#include <QLabel>
#include <QMenu>
#include <QTreeWidget>
#include <QWidget>

#include "language/language.h"
#include "log/logs.h"

namespace postiq {

namespace {

// The control of the form with that object name; the form itself counts.
QObject* namedControl(QWidget& form, const QString& name)
{
    if (form.objectName() == name)
        return &form;
    return form.findChild<QObject*>(name);
}

[[noreturn]] void noSuchControl(const QString& name)
{
    throw Fault(ErrInvalidCall, QStringLiteral("Control not found: ") + name);
}

void setCaption(QObject& control, const QString& text)
{
    if (auto* action = qobject_cast<QAction*>(&control))
        action->setText(text);
    else if (auto* button = qobject_cast<QAbstractButton*>(&control))
        button->setText(text);
    else if (auto* label = qobject_cast<QLabel*>(&control))
        label->setText(text);
    else if (auto* box = qobject_cast<QGroupBox*>(&control))
        box->setTitle(text);
    else if (auto* menu = qobject_cast<QMenu*>(&control))
        menu->setTitle(text);
    else if (auto* widget = qobject_cast<QWidget*>(&control))
        widget->setWindowTitle(text); // a form or a page: its caption is its title
}

void setToolTip(QObject& control, const QString& text)
{
    if (auto* action = qobject_cast<QAction*>(&control))
        action->setToolTip(text);
    else if (auto* widget = qobject_cast<QWidget*>(&control))
        widget->setToolTip(text);
}

// Tree nodes carry their key ("cat_" + name) as user data of column 0.
QTreeWidgetItem* findNode(QWidget& form, const QString& nodeKey)
{
    auto* tree = form.findChild<QTreeWidget*>(QStringLiteral("Categories"));
    if (!tree)
        return nullptr;
    for (int i = 0; i < tree->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = tree->topLevelItem(i);
        if (item->data(0, Qt::UserRole).toString() == nodeKey)
            return item;
    }
    return nullptr;
}

} // namespace

void LOADValues(Logs& logs, LanguageTable& language, QWidget& form, const QString& section)
{
    logs.guarded("MOD:LANGUAGE[LOADValues]", [&] {
        language.resetSharedWords();
        for (const LanguageTable::Row& row : language.rows()) {
            const QString prefix = row.key.left(3);
            const QString name = QString(row.key).remove(prefix + u'_');
            if (row.section == section) {
                if (prefix == QLatin1String("CPT") || prefix == QLatin1String("TIP")) {
                    QObject* control = namedControl(form, name);
                    if (!control)
                        noSuchControl(name);
                    if (prefix == QLatin1String("CPT"))
                        setCaption(*control, row.value);
                    else
                        setToolTip(*control, row.value);
                } else if (prefix == QLatin1String("NOD")) {
                    QTreeWidgetItem* node = findNode(form, QStringLiteral("cat_") + name);
                    if (!node)
                        noSuchControl(QStringLiteral("cat_") + name);
                    node->setText(0, row.value);
                }
            } else if (row.section == QLatin1String("CONSTANTS") && prefix == QLatin1String("CST")) {
                bool ok = false;
                const int number = row.key.right(2).toInt(&ok);
                if (!ok)
                    throw Fault(ErrTypeMismatch, QStringLiteral("Type mismatch: ") + row.key);
                language.setSharedWord(number, row.value);
            }
        }
    });
}

} // namespace postiq
