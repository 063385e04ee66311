# The two commands of the README, and the sanitizer builds that CI adds.
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= 2
CMAKE = cmake -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

.PHONY: deps build run test test-asan test-tsan fuzz kill-campaign ci clean man install

deps:
	bash scripts/install-deps.sh

build: deps
	$(CMAKE) -S . -B build
	cmake --build build -j $(JOBS)

# Installs for the user who runs it (~/.local), or for everyone when run as root
# (/usr/local); DESTDIR stages the tree for a package. BIN is the program to install.
PREFIX ?= $(if $(filter 0,$(shell id -u)),/usr/local,$(HOME)/.local)
BIN ?= build/cirrovault
# The desktop host beside it, installed with its menu entry and icon when it was built.
GUI_BIN ?= $(dir $(BIN))cirrovault-gtk
MAN = $(BIN).1

# The man page is made from --help and --version, so it never says other than the program.
man:
	test -x $(BIN) || $(MAKE) build
	help2man --no-info --no-discard-stderr --section 1 \
	  --name "back up folders to your online storage and restore them" --output $(MAN) $(BIN)

install: man
	install -Dm755 $(BIN) $(DESTDIR)$(PREFIX)/bin/cirrovault
	install -Dm644 $(MAN) $(DESTDIR)$(PREFIX)/share/man/man1/cirrovault.1
	install -Dm644 resources/completions/cirrovault.bash \
	  $(DESTDIR)$(PREFIX)/share/bash-completion/completions/cirrovault
	install -Dm644 resources/completions/_cirrovault $(DESTDIR)$(PREFIX)/share/zsh/site-functions/_cirrovault
	install -Dm644 resources/completions/cirrovault.fish \
	  $(DESTDIR)$(PREFIX)/share/fish/vendor_completions.d/cirrovault.fish
	install -d $(DESTDIR)$(PREFIX)/share/systemd/user
	sed 's|@BINDIR@|$(PREFIX)/bin|' resources/cirrovault.service \
	  > $(DESTDIR)$(PREFIX)/share/systemd/user/cirrovault.service
	chmod 644 $(DESTDIR)$(PREFIX)/share/systemd/user/cirrovault.service
	if [ -x $(GUI_BIN) ]; then \
	  install -Dm755 $(GUI_BIN) $(DESTDIR)$(PREFIX)/bin/cirrovault-gtk; \
	  install -d $(DESTDIR)$(PREFIX)/share/applications; \
	  sed 's|^Exec=cirrovault-gtk|Exec=$(PREFIX)/bin/cirrovault-gtk|' resources/org.cirrovault.Desktop.desktop \
	    > $(DESTDIR)$(PREFIX)/share/applications/org.cirrovault.Desktop.desktop; \
	  chmod 644 $(DESTDIR)$(PREFIX)/share/applications/org.cirrovault.Desktop.desktop; \
	  install -Dm644 resources/cirrovault.svg $(DESTDIR)$(PREFIX)/share/icons/hicolor/scalable/apps/cirrovault.svg; \
	fi

# A real backup of a folder into the embedded local store.
run: build
	bash scripts/demo.sh build

test: build
	ctest --test-dir build --output-on-failure -j $(JOBS)

# The sanitizer trees leave the GTK windows out: GTK's own leaks and threads are not ours.
test-asan: deps
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCV_SANITIZE=address,undefined -DCV_WITH_GTK=OFF
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS)

# The threading tests (suites named *Concurrency* or *Thread*) under ThreadSanitizer.
test-tsan: deps
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DCV_SANITIZE=thread -DCV_WITH_GTK=OFF
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1 setarch $$(uname -m) -R \
	  ctest --test-dir build-tsan --output-on-failure -j $(JOBS) -R 'Concurrency|Thread'

# The libFuzzer harnesses (clang, address + undefined): the seeds once each, then
# FUZZ_SECONDS of new inputs per fuzzer.
FUZZ_SECONDS ?= 20
fuzz: deps
	cmake -G Ninja -S . -B build-fuzz -DCMAKE_BUILD_TYPE= -DCMAKE_CXX_COMPILER=clang++ \
	  -DCV_BUILD_FUZZ=ON -DCV_BUILD_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzzers
	FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_JOBS=$(JOBS) bash tests/fuzz/run.sh build-fuzz

# Backups killed with SIGKILL at seeded random points, on the local store and Apache.
kill-campaign: build
	KILLS=$${KILLS:-20} SEED=$${SEED:-17} timeout 300 bash scripts/kill-campaign.sh build

ci: test kill-campaign test-asan test-tsan fuzz

clean:
	rm -rf build build-asan build-tsan build-fuzz
