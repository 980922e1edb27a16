#pragma once

#include <QList>
#include <QString>
#include <array>

namespace postiq {

class Logs;

// The texts of a language file, kept in memory for the forms to apply when they load, and the
// four words the forms share (override check box label, "default", yes, no).
class LanguageTable {
public:
    struct Row {
        QString section; // "MAIN", "CONFIGURATION", "CONSTANTS", ...
        QString key;     // e.g. "CPT_btnWrite"
        QString value;

        bool operator==(const Row&) const = default;
    };
    static constexpr int kSharedWordCount = 4;

    LanguageTable();

    // The language the windows are written in: it needs no file.
    static constexpr char kBuiltInLanguage[] = "fr";

    // Replaces the table with the entries of language/<name>.ini, looked for in the language
    // folders. A missing file leaves the table empty and the built-in French in force; for
    // another language than the built-in one, error.txt and a notice say that its file was not found.
    void LOADFile(Logs& logs, const QString& name);

    // The entries in file order.
    const QList<Row>& rows() const { return rows_; }

    // A text the program composes while it runs (the tray's tool-tip, the grid's headings and
    // states, notices): the entry TXT_<name> of the section TEXTS, else the built-in French.
    QString text(const QString& name, const QString& french) const;

    // Words are numbered 1 to kSharedWordCount; another number throws Fault(ErrOutOfRange).
    QString sharedWord(int number) const;
    void setSharedWord(int number, const QString& text);
    void resetSharedWords();
    static QString builtInSharedWord(int number);

private:
    void readEntries(const QByteArray& bytes);

    QList<Row> rows_;
    std::array<QString, kSharedWordCount> sharedWords_;
};

} // namespace postiq
