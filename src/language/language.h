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

    // Replaces the table with the entries of language/<name>.ini in the program folder. A missing
    // file leaves the table empty and the built-in French in force, without a word.
    void LOADFile(Logs& logs, const QString& name);

    // The entries in file order.
    const QList<Row>& rows() const { return rows_; }

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
