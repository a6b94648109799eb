#pragma once

struct ProbeRequest;

/// Sets libcurl's options for target, request and proxy: everything but the callbacks.
/// @param easy the easy handle, whose target never changes.
/// @return 0, or libcurl's number of what went wrong.
unsigned int setUpTransfer(void* easy, const ProbeRequest& request);

/// Makes the handle forget the credentials.
void dropCredentials(void* easy);
