/*
 * zelutil.h - the utility library's interface, one include for all of it.
 */
#ifndef ZELUTIL_H
#define ZELUTIL_H

#include "zel_basic_types.h"
#include "kvx_records.h"
#include "zellog.h"
#include "zelfunc.h"
#include "zelcommon.h"
#include "agentactivitylog.h"
#include "zelmountentry.h"
#include "vmdetect.h"
#include "httpclient.h"
#include "kvxuuid.h"
#include "zelsvciobackend.h"

#endif /* ZELUTIL_H */
