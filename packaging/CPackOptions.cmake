# Read by cpack before it installs into its staging tree: the package puts
# the service unit where systemd looks for units of packages.
set(ENV{TALVOR_SYSTEMD_UNITDIR} /lib/systemd/system)
