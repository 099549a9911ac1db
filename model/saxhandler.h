// The element-by-element reading interface of the older XML path: a handler
// is told the attributes of its element, the text of simple child elements,
// the items of list elements, and hands out nested handlers for structured
// children. parseElement drives it from a QXmlStreamReader.
#ifndef ZOR_SAXHANDLER_H
#define ZOR_SAXHANDLER_H

#include <QPair>
#include <QString>
#include <QVector>

class QXmlStreamAttributes;
class QXmlStreamReader;

// The attributes of one element, in document order.
class SaxAttributes
{
public:
    SaxAttributes() {}
    explicit SaxAttributes(const QXmlStreamAttributes& attributes);

    void append(const QString& qName, const QString& value) { mEntries.append(qMakePair(qName, value)); }
    int count() const { return mEntries.size(); }
    int length() const { return mEntries.size(); }
    QString qName(int index) const { return mEntries.at(index).first; }
    QString value(int index) const { return mEntries.at(index).second; }
    // The index of the attribute, -1 if absent.
    int index(const QString& qName) const;
    bool contains(const QString& qName) const { return index(qName) >= 0; }
    // The value of the attribute, a null string if absent.
    QString value(const QString& qName) const;

private:
    QVector<QPair<QString, QString>> mEntries;
};

class SaxHandler
{
public:
    virtual ~SaxHandler();

    // The handler for a structured child element, null when the element is
    // simple. The returned handler stays owned by this one.
    virtual SaxHandler* getNestedStruct(const QString& name);
    // Told once a nested handler has read its element.
    virtual void nestedResponse(const QString& name, SaxHandler* nested);
    virtual void readAttributes(const QString& name, const SaxAttributes& attributes);
    // The text of a child element that has no children.
    virtual void readParam(const QString& name, const QString& value);
    // The text of one item of a child element that holds a list.
    virtual void readListItem(const QString& list, const QString& value);

    // Reads the element at which reader stands, through its end. False on
    // an XML error, with the reader's message in *error.
    bool parseElement(QXmlStreamReader& reader, QString* error);
};

#endif
