#pragma once

#include "core/ZDError.h"

#include <QByteArray>
#include <QVariant>

#include <variant>

// Parses `body` as one JSON text (a fragment such as a bare string or number is
// a complete text) into the library's value types. Every invalid document is
// refused with the parser's own error; nesting deeper than the parser's limit
// (1024 levels) is refused too, so no input can exhaust the stack.
std::variant<QVariant, ZDError> zdParseJSON(const QByteArray &body);
