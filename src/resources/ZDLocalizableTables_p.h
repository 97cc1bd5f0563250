#pragma once

#include <cstddef>
#include <span>

// The compiled "Localizable" tables (Qt .qm data), one per language, generated
// at build time from the .ts sources beside this file.
struct ZDLocalizableTable
{
    const char *language;
    const unsigned char *data;
    std::size_t size;
};

std::span<const ZDLocalizableTable> zdLocalizableTables();
