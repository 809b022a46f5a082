// Everything that the module exports.
#ifndef TANSY_CLOUD_STORAGE_CLOUD_STORAGE_H
#define TANSY_CLOUD_STORAGE_CLOUD_STORAGE_H

#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/ClientFailure.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyCloudStorage/PictureClient.h"
#include "TansyCloudStorage/PictureServer.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyCloudStorage/ServerLoad.h"
#include "TansyCloudStorage/StorageConfig.h"

#endif  // TANSY_CLOUD_STORAGE_CLOUD_STORAGE_H
