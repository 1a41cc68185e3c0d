# orvd tells systemd when the store is ready for the other daemons (sd_notify).
target_link_libraries(${name} PRIVATE PkgConfig::SYSTEMD)
