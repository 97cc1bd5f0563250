#pragma once

#include <QString>

#include <functional>
#include <optional>

// GetScrambledKey() with its key stream drawn from `nextDraw` instead of
// random(), so tests can feed known draws.
std::optional<QString> zdScrambledKeyWithGenerator(const QString &scrambledKey,
                                                   const std::function<long()> &nextDraw);
