// fmri-rem: group-level random-effects analysis of fMRI results.
int main() { return 0; }
