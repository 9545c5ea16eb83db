// installation
