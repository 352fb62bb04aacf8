/*
 * libconfigmanager: the configuration manager of the gateway.
 *
 * Include this header for the whole C interface: result codes and data
 * types, the variable ID constants (generated from the catalogue), lookups,
 * record storage, get and set, value texts and passwords, start and stop,
 * change notification and the log gate.
 * cm_host.h holds host and test extensions that the device does not use.
 */
#ifndef CONFIGMANAGER_CONFIGMANAGER_H
#define CONFIGMANAGER_CONFIGMANAGER_H

#include "configmanager/applog.h"
#include "configmanager/applog_settings.h"
#include "configmanager/cm_backup.h"
#include "configmanager/cm_batch.h"
#include "configmanager/cm_defaults.h"
#include "configmanager/cm_getset.h"
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_lookup.h"
#include "configmanager/cm_notify.h"
#include "configmanager/cm_setup.h"
#include "configmanager/cm_storage.h"
#include "configmanager/cm_tags.h"
#include "configmanager/cm_tools.h"
#include "configmanager/cm_types.h"
#include "configmanager/cm_values.h"
#include "configmanager/cm_vars.h"

#endif
