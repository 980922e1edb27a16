#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QWidget>
#include <functional>
#include <vector>

#include "config/configuration.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QLabel;
class QRadioButton;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;

namespace postiq {

class Logs;
class RoutesPage;
class Settings;

// The configuration dialog: a tree of categories, one page per category, each setting with its
// control and its "override the default" check box. It is an ordinary window: while it is open
// the relay goes on.
class ConfigurationDialog : public QWidget {
    Q_OBJECT
public:
    // What the language side gives the dialog: the relabelling of the form, and the shared words
    // (1 the check boxes' label, 2 "default", 3 yes, 4 no) as they are after it.
    struct Texts {
        std::function<void(QWidget& form)> relabel;
        std::function<QString(int number)> sharedWord;
        // The texts the dialog composes (the routes page's list and messages): the language's
        // TXT_name, else the built-in French.
        std::function<QString(const char* name, const QString& french)> text;
    };

    // Builds the dialog, relabels it and fills each control from UserSettings when its flag is
    // set, else from DefaultSettings with the control disabled. `applyWritten` puts what "Ecrire"
    // wrote into force.
    ConfigurationDialog(Settings& settings, Logs& logs, std::function<void()> applyWritten, Texts texts,
                        QWidget* parent = nullptr);
    ~ConfigurationDialog() override;

    // Copies every control and check box into EditSettings, writes Postiq.ini from it, stores a
    // password that was typed, writes Routes.ini when its page changed it, then puts the files
    // into force as Recharger does.
    void btnWrite_Click();
    // Acts as a click on the node with that key (e.g. "cat_network_5").
    void selectCategory(const QString& nodeKey);

private:
    // One setting on its page: its check box, the controls the box enables, and how its value
    // goes between the controls and a settings instance.
    struct Binding {
        QCheckBox* defaultBox = nullptr;
        QList<QWidget*> controls;
        QLabel* defaultValue = nullptr;
        bool CConfiguration::*flag = nullptr;
        std::function<void(const CConfiguration&)> show;
        std::function<void(CConfiguration&)> take;
        std::function<QString(const CConfiguration&)> defaultText;
    };

    void buildPages();
    QWidget* addPage(const QString& frameName, const QString& nodeKey, const QString& caption, const QString& icon);
    void addSetting(QWidget* page, const QString& name, const QString& caption, QWidget* editor,
                    QList<QWidget*> controls, bool CConfiguration::*flag,
                    std::function<void(const CConfiguration&)> show, std::function<void(CConfiguration&)> take,
                    std::function<QString(const CConfiguration&)> defaultText);
    void addBoolean(QWidget* page, const QString& name, const QString& caption, bool CConfiguration::*value,
                    bool CConfiguration::*flag);
    void addText(QWidget* page, const QString& name, const QString& caption, QString CConfiguration::*value,
                 bool CConfiguration::*flag);
    void addNumber(QWidget* page, const QString& name, const QString& caption, int minimum, int maximum,
                   std::function<int(const CConfiguration&)> get, std::function<void(CConfiguration&, int)> set,
                   bool CConfiguration::*flag);
    void addLanguage(QWidget* page);
    void fillLanguages();
    QLineEdit* addField(QWidget* page, const QString& name, const QString& caption);
    void addServerUser(QWidget* page);
    void addPassword(QWidget* page);
    // The typed password goes into the keyring, or into its file where no keyring answers.
    void storePassword();
    // Says where the password is kept: the keyring, or the file.
    void showPasswordPlace(bool inKeyring);
    void applySharedWords();
    void fillFromSettings();
    void nodeClicked(QTreeWidgetItem* item);

    Settings& settings_;
    Logs& logs_;
    std::function<void()> applyWritten_;
    Texts texts_;

    QTreeWidget* categories_ = nullptr;
    QStackedWidget* pages_ = nullptr;
    QLabel* title_ = nullptr;
    QLabel* image_ = nullptr;
    QComboBox* language_ = nullptr;
    QLineEdit* server_ = nullptr;
    QLineEdit* user_ = nullptr;
    QLineEdit* password_ = nullptr;
    QLabel* passwordInKeyring_ = nullptr;
    QLabel* passwordInFile_ = nullptr;
    RoutesPage* routes_ = nullptr;
    std::vector<Binding> bindings_;
    QList<QPair<QRadioButton*, QRadioButton*>> booleans_;
};

} // namespace postiq
