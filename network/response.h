// Everything that travels back to the front-end is a Response. Each has an
// XML wire form: one element named after its class, written and read by the
// class itself, so that a factory can rebuild any response from its text.
#ifndef ZOR_RESPONSE_H
#define ZOR_RESPONSE_H

#include <QByteArray>
#include <QString>

class QXmlStreamReader;
class QXmlStreamWriter;

class Response
{
public:
    virtual ~Response();

    // The element name of the wire form, unique among responses.
    virtual QString elementName() const = 0;
    virtual Response* clone() const = 0;

    // Writes the whole element.
    void writeXml(QXmlStreamWriter& writer) const;
    // Expects the reader on the element's start and leaves it on its end.
    // False, with the reason in `error`, for a different element or content
    // that doesn't parse; the response may then be partly filled.
    bool readXml(QXmlStreamReader& reader, QString* error);
    virtual bool useXmlStreamReader() const { return true; }

    // The wire form as a document, and back.
    QString toString() const;
    bool fromString(const QString& text, QString* error);

    // Responses of several processes that can be folded into one on the way
    // to the front-end say so here; merge() folds `other` into this one.
    virtual bool isMergable() const { return false; }
    virtual bool merge(const Response& other);

    // Moves forward in document order to the next start element, whatever
    // its depth; false when the document ends first.
    static bool readNextStartElement(QXmlStreamReader& reader);

protected:
    Response() = default;
    Response(const Response&) = default;
    Response& operator=(const Response&) = default;

    // Attributes and children of the element; the element itself is opened
    // and closed by writeXml.
    virtual void writeContent(QXmlStreamWriter& writer) const = 0;
    // Reads attributes and children, and must leave the reader on the
    // element's end.
    virtual bool readContent(QXmlStreamReader& reader, QString* error) = 0;
};

// Gives a response class its name, its copy and its merge hook: a class
// derives from ResponseAdaptor<Itself> and defines a static
// staticElementName(), and mergeImpl() if it can be merged.
template <class T>
class ResponseAdaptor : public Response
{
public:
    QString elementName() const override { return T::staticElementName(); }
    Response* clone() const override { return new T(static_cast<const T&>(*this)); }
    bool merge(const Response& other) override
    {
        const T* same = dynamic_cast<const T*>(&other);
        return same && isMergable() && static_cast<T*>(this)->mergeImpl(*same);
    }

protected:
    bool mergeImpl(const T&) { return false; }
};

// Rebuilds responses from their wire form.
class ResponseFactoryPlugin
{
public:
    virtual ~ResponseFactoryPlugin();

    // A new, empty response for an element name; null for a name it doesn't know.
    virtual Response* createResponse(const QString& elementName) const = 0;
    virtual QStringList elementNames() const = 0;

    // The response whose element the reader stands on. Null, with the
    // reason in `error`, for an unknown element or malformed content.
    Response* readResponse(QXmlStreamReader& reader, QString* error) const;
    // The response of a whole document.
    Response* fromXml(const QByteArray& xml, QString* error) const;
};

#endif
