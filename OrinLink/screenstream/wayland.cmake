# (filled in by its library's work)
