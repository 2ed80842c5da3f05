// A module for the loader tests, built once per index as libdlmod_NN.so. Every
// copy defines the same name dlmod_value, so a look-up that answered from the
// wrong module gives the wrong number; DLMOD_ONLY (dlmod_NN_only) exists in
// one copy only.
extern "C" int dlmod_value() { return DLMOD_INDEX; }
extern "C" int DLMOD_ONLY() { return 1000 + DLMOD_INDEX; }
