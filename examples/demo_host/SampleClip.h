#pragma once

#include <QString>

// Writes a short Motion-JPEG AVI clip (3 seconds, 320x240, 15 frames a second)
// to `path`: a real video any player opens, for when the user names none.
// Returns false (with `error` set) when the file cannot be written.
bool writeSampleClip(const QString &path, QString *error);
