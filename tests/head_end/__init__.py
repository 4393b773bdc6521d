"""The test of a whole head-end under load, with the model beside it."""
