#include "coroutinecont.h"

#include <QEventLoop>
#include <QObject>

void CoroutineCont::yieldUntil(QObject* sender, const char* signal)
{
    QEventLoop loop;
    QObject::connect(sender, signal, &loop, SLOT(quit()));
    QObject::connect(sender, SIGNAL(destroyed()), &loop, SLOT(quit()));
    loop.exec();
}
