// What this platform supports, for C++ callers; the exported vsk_db_supported,
// vsk_db_rep_supported and vsk_db_support_scaling are shims over these.
#pragma once



namespace vsk::store {

bool Supported();
bool RepSupported();
bool SupportScaling();

}  // namespace vsk::store
