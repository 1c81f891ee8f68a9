// The headers that nearly every test includes, compiled ahead once for all of them.
