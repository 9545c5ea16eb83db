// changes
