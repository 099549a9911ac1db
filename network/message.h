// One message between the front-end and a host: a command one way; responses,
// failures and the host's own notices the other way. On the stream each
// message is one XML document (see MessageStream for the framing):
//
//   <message kind="command"><command .../></message>
//   <message kind="cancel"><param key="uid" .../></message>
//   <message kind="response"><SomeResponse .../></message>
//   <message kind="reply" uid="7" command="name"><SomeResponse .../></message>
//   <message kind="exception"><exception .../></message>
//   <message kind="replyException" uid="7" command="name"><exception .../></message>
//   <message kind="hello"><param key="rank" .../>...</message>
//   <message kind="targetExit"><param key="exitCode" .../>...</message>
//
// Responses are rebuilt on the receiving side through a ResponseFactoryPlugin.
#ifndef ZOR_MESSAGE_H
#define ZOR_MESSAGE_H

#include <QByteArray>
#include <QString>
#include <QVariantMap>
#include <memory>

#include "command.h"
#include "exception.h"
#include "response.h"

class ResponseFactoryPlugin;

struct Message
{
    enum Kind {
        // Front-end to host.
        CommandMessage,
        // The front-end no longer wants the answer of command `uid`.
        Cancel,
        // Host to front-end: a response that answers no command.
        ResponseMessage,
        // The answer to command `uid`.
        Reply,
        // A failure that answers no command.
        ExceptionMessage,
        // A command's answer that is a failure.
        ReplyException,
        // First message of a host: who it is (see HelloKeys below).
        Hello,
        // The target has ended: "exitCode" or "signal", and "reason" in words.
        TargetExit
    };

    Kind kind = CommandMessage;
    // For replies and cancellations: the uid of the command concerned.
    int uid = -1;
    // For replies: the name of the command answered.
    QString commandName;
    Command command;
    std::shared_ptr<Response> response;
    std::shared_ptr<ExceptionBase> exception;
    // Free-form facts of Cancel, Hello and TargetExit.
    QVariantMap values;

    static Message forCommand(const Command& command);
    static Message forCancel(int uid);
    // The response is copied, so the caller may delete it at once.
    static Message forResponse(const Response& response);
    static Message forReply(const Command& command, const Response& response);
    static Message forException(const ExceptionBase& exception);
    static Message forReplyException(const Command& command, const ExceptionBase& exception);
    static Message forValues(Kind kind, const QVariantMap& values);

    static QString kindName(Kind kind);

    // The XML document of the message.
    QByteArray toXml() const;
    // Reads one document. `factory` rebuilds responses and may be null on a
    // side that receives none; a response then fails to read. False, with
    // the reason in `error`, for anything malformed or unknown.
    static bool fromXml(const QByteArray& xml, const ResponseFactoryPlugin* factory, Message* message,
                        QString* error);
    // What fromXml does first: a block of samples read by our own reader.
    // False, with what stopped it in *error, for anything else, and for
    // anything in a block that reader doesn't know.
    static bool readSampleBlock(const QByteArray& xml, const ResponseFactoryPlugin* factory, Message* message,
                                QString* error);
};

// Keys of the hello message.
namespace HelloKeys {
extern const char* const Rank;          // int
extern const char* const RankCount;     // int
extern const char* const Hostname;      // string
extern const char* const HostPid;       // int: the host itself
extern const char* const TargetPid;     // int
extern const char* const DebuggerPid;   // int
extern const char* const Program;       // string
extern const char* const Error;         // string: set when the host could not start the target
}

#endif
