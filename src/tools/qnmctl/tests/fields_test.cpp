// fields
