#pragma once

#include <QString>

// What the library makes of curl's result codes, in one table: the sentence a
// failure carries (curl's own code and message go into userInfo beside it), and
// whether a resumable upload treats it as a passing fault of the network.
struct ZDCurlCode
{
    QString description;
    bool retryable = false;
};

// Codes the table does not name read "The exchange with the server failed."
// and are not retried.
ZDCurlCode zdCurlCode(qint64 code);
