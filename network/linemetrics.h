// Instruction counts of one source line, by metric identifier. A tree node
// sums the counts of every sample that stopped on its line.
#ifndef ZOR_LINEMETRICS_H
#define ZOR_LINEMETRICS_H

#include <QMap>
#include <QString>

class LineMetrics
{
public:
    LineMetrics() {}

    void set(const QString& id, double value) { mValues.insert(id, value); }
    double value(const QString& id) const { return mValues.value(id, 0.0); }
    bool isEmpty() const { return mValues.isEmpty(); }
    const QMap<QString, double>& values() const { return mValues; }

    // Adds other's counts to these.
    void merge(const LineMetrics& other);

    // One metric as "id=value", the form readEntry takes back.
    static QString entryToString(const QString& id, double value);
    bool readEntry(const QString& text);

    bool operator==(const LineMetrics& other) const { return mValues == other.mValues; }
    bool operator!=(const LineMetrics& other) const { return !(*this == other); }

private:
    QMap<QString, double> mValues;
};

#endif
