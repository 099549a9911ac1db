// A named request from the front-end, or from the plug-in to the debugger.
#ifndef ZOR_COMMAND_H
#define ZOR_COMMAND_H

#include <QString>
#include <QVariant>
#include <QVariantMap>

class QXmlStreamReader;
class QXmlStreamWriter;

class Command
{
public:
    Command();
    // `action` may be null; it names a sub-operation for targets that have them.
    Command(const QString& name, const QString& target, const char* action = nullptr);

    void addParameter(const QString& key, const QVariant& value) { parameters.insert(key, value); }
    // The value stored under `key`, or `defaultValue` when there is none.
    QVariant getValue(const QString& key, const QVariant& defaultValue = QVariant()) const;
    // The stored value as a flag; `defaultValue` when it is missing or won't convert.
    bool getFlagValue(const QString& key, bool defaultValue) const;

    int getUid() const { return mUid; }
    void setUid(int uid) { mUid = uid; }
    QString getTarget() const { return mTarget; }
    QString getAction() const { return mAction; }

    // Wire form: a "command" element with typed parameters. readXml expects
    // the reader on that element's start; on failure it returns false and
    // says why in `error`.
    void writeXml(QXmlStreamWriter& writer) const;
    bool readXml(QXmlStreamReader& reader, QString* error);
    QByteArray toXml() const;
    static bool fromXml(const QByteArray& xml, Command* command, QString* error);

    QString name;
    QVariantMap parameters;

private:
    QString mTarget;
    QString mAction;
    int mUid;
};

// The typed form of one QVariant inside an element: used by commands and by
// responses that carry free-form values.
void writeVariantXml(QXmlStreamWriter& writer, const QString& element, const QString& key, const QVariant& value);
bool readVariantXml(QXmlStreamReader& reader, QVariant* value, QString* error);

#endif
