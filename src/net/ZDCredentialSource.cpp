#include "net/ZDCredentialSource.h"

ZDCredentialSource::~ZDCredentialSource() = default;
