// Text forms of small values inside the XML wire form.
#ifndef ZOR_XMLVALUES_H
#define ZOR_XMLVALUES_H

#include <QSet>
#include <QString>

#include "samplevalue.h"

class QXmlStreamReader;

// "" for an empty value, "i:-3", "u:7" or "d:2.5" otherwise; doubles keep
// every bit through the round trip.
QString sampleValueToString(const SampleValue& value);
// False, leaving `value` alone, for a text that is none of those forms.
bool sampleValueFromString(const QString& text, SampleValue* value);

// Comma-separated decimal integers.
QString intSetToString(const QSet<int>& set);
bool intSetFromString(const QString& text, QSet<int>* set);

// The error of a failed read: the reader's own if it has one, `fallback` otherwise.
QString xmlReadError(const QXmlStreamReader& reader, const QString& fallback);

#endif
