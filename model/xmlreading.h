// Helpers for reading the XML forms of the model with QXmlStreamReader.
#ifndef ZOR_XMLREADING_H
#define ZOR_XMLREADING_H

class QXmlStreamReader;

// Reads on to the next start element inside the current element. Returns
// true there, and false on reaching the current element's end, the end of
// the input or an error; the reader's error tells which.
bool readNextStartElement(QXmlStreamReader& reader);

#endif
