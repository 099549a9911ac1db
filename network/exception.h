// Failures of the command path. They are created with new and thrown by
// pointer, so what is caught is Exception*; whoever catches one owns it.
#ifndef ZOR_EXCEPTION_H
#define ZOR_EXCEPTION_H

#include <QString>

class QXmlStreamReader;
class QXmlStreamWriter;

class ExceptionBase
{
public:
    // Takes ownership of `nested`, the failure that caused this one.
    ExceptionBase(int code, const QString& message, ExceptionBase* nested, const char* file, int line);
    ExceptionBase(const ExceptionBase& other);
    ExceptionBase& operator=(const ExceptionBase& other);
    virtual ~ExceptionBase();

    int code() const { return mCode; }
    QString message() const { return mMessage; }
    const ExceptionBase* nested() const { return mNested; }
    QString source() const { return mSource; }
    void setSource(const QString& source) { mSource = source; }
    QString file() const { return mFile; }
    int line() const { return mLine; }

    // The message followed by those of the nested causes, one per line.
    QString fullMessage() const;

    // Wire form: an "exception" element holding the message and the nested
    // cause. readXml expects the reader on that element's start.
    void writeXml(QXmlStreamWriter& writer) const;
    static ExceptionBase* readXml(QXmlStreamReader& reader, QString* error);

private:
    int mCode;
    QString mMessage;
    ExceptionBase* mNested;
    QString mSource;
    QString mFile;
    int mLine;
};

class Exception : public ExceptionBase
{
public:
    Exception(int code, const QString& message, ExceptionBase* nested = nullptr, const char* file = nullptr,
              int line = 0);
    explicit Exception(const ExceptionBase& other);
};

#endif
