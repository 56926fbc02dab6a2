#pragma once

#include <QString>
#include <QStringList>

// Words for what GL has numbers for. Apart from what shows them: the headers of Qt's GL widgets and those of the GL
// loader do not go together.

/// "RGBA16F".
QString formatName(unsigned int internalFormat);
/// The errors that GL has noted, which are gone then.
QStringList takeGlErrors();
