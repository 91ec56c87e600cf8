// Test-only ALSA control plugin: a small mixer card with dB scales, an
// enumeration, an inactive control and names ALSA does not rank in alphabetical
// order, whose "hardware" the test scripts through a FIFO (the poll
// descriptor, so a written line wakes poll()). Lines run when ALSA calls
// read_event (snd_mixer_handle_events), one command a line:
//   set <ctl name> <value>   an external change of every channel, then a VALUE event
//   info <ctl name>          an INFO event only
//   pollerr                  the descriptor reports POLLERR from now on
//   dead                     read_event fails with -EIO and the descriptor stays
//                            readable, like a lost backend
// `extra N` adds N playback volumes "Extra 000" ... for load measurements.
// Every snd_ctl_open gets its own state.
#define _GNU_SOURCE // pipe2, dup3
#include <alsa/asoundlib.h>
#include <alsa/control_external.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

struct ctl {
	char name[44];
	snd_ctl_elem_type_t type;
	int channels, db, inactive;
	long max, value[2];
};

#define VOL(n, ch, mx, db, v) { n, SND_CTL_ELEM_TYPE_INTEGER, ch, db, 0, mx, { v, v } }
#define SW(n) { n, SND_CTL_ELEM_TYPE_BOOLEAN, 2, 0, 0, 1, { 1, 1 } }
static const char *const sources[] = { "Mic", "Line", "CD", "Internal" };
static const struct ctl base_ctls[] = {
	VOL("Master Playback Volume", 2, 100, 1, 80), SW("Master Playback Switch"),
	VOL("Master Mono Playback Volume", 1, 100, 1, 80), VOL("Headphone Playback Volume", 2, 31, 0, 20),
	VOL("Capture Volume", 2, 100, 1, 60), SW("Capture Switch"),
	{ "Input Source", SND_CTL_ELEM_TYPE_ENUMERATED, 1, 0, 0, 3, { 0, 0 } },
	{ "Inactive Volume", SND_CTL_ELEM_TYPE_INTEGER, 1, 0, 1, 100, { 50, 50 } },
	// ALSA lists these as given, so "Aux Zoom" (a partial match for "zoom")
	// comes before the exact "Zoom".
	VOL("Aux Zoom Playback Volume", 1, 10, 0, 5), VOL("Zoom Playback Volume", 1, 10, 0, 5),
};
#define NBASE (sizeof(base_ctls) / sizeof(base_ctls[0]))
// -50.00 dB at 0, 0.50 dB per step: 0..100 spans -50..0 dB
static const unsigned int db_tlv[] = { SND_CTL_TLVT_DB_SCALE, 2 * sizeof(unsigned int), (unsigned int)-5000, 50 };

struct state {
	snd_ctl_ext_t ext;
	int dead, count;
	struct ctl ctls[];
};
#define S(ext) ((struct state *)(ext)->private_data)
#define C(ext, key) (&S(ext)->ctls[key])

static int elem_count(snd_ctl_ext_t *ext) { return S(ext)->count; }

// Also names the element of an event (run_command).
static int elem_list(snd_ctl_ext_t *ext, unsigned int k, snd_ctl_elem_id_t *id)
{
	snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
	snd_ctl_elem_id_set_name(id, C(ext, k)->name);
	snd_ctl_elem_id_set_numid(id, k + 1);
	return 0; // ALSA asks below elem_count() only
}

static snd_ctl_ext_key_t lookup(struct state *s, const char *name)
{
	for (int k = 0; k < s->count; k++)
		if (!strcmp(s->ctls[k].name, name))
			return k;
	return SND_CTL_EXT_KEY_NOT_FOUND;
}

static snd_ctl_ext_key_t find_elem(snd_ctl_ext_t *ext, const snd_ctl_elem_id_t *id)
{
	return lookup(S(ext), snd_ctl_elem_id_get_name(id)); // the mixer always names the element
}

static int get_attribute(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int *type, unsigned int *acc, unsigned int *count)
{
	*type = C(ext, key)->type;
	*count = C(ext, key)->channels;
	*acc = SND_CTL_EXT_ACCESS_READWRITE | (C(ext, key)->inactive ? SND_CTL_EXT_ACCESS_INACTIVE : 0)
	     | (C(ext, key)->db ? SND_CTL_EXT_ACCESS_TLV_READ | SND_CTL_EXT_ACCESS_TLV_CALLBACK : 0);
	return 0;
}

static int get_integer_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *imin, long *imax, long *istep)
{
	*imin = 0, *imax = C(ext, key)->max, *istep = 1;
	return 0;
}

static int get_enumerated_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	*items = C(ext, key)->max + 1;
	return 0;
}

static int get_enumerated_name(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int item, char *name, size_t max)
{
	snprintf(name, max, "%s", item <= (unsigned int)C(ext, key)->max ? sources[item] : "");
	return 0;
}

static int read_tlv(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int op_flag, unsigned int numid, unsigned int *tlv,
		    unsigned int tlv_size)
{
	(void)ext, (void)key, (void)numid;
	if (op_flag || tlv_size < sizeof(db_tlv))
		return op_flag ? -ENXIO : -ENOMEM;
	memcpy(tlv, db_tlv, sizeof(db_tlv));
	return 0;
}

static int read_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value)
{
	memcpy(value, C(ext, key)->value, C(ext, key)->channels * sizeof(long));
	return 0;
}

static int read_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	*items = C(ext, key)->value[0];
	return 0;
}

static int write_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value)
{
	memcpy(C(ext, key)->value, value, C(ext, key)->channels * sizeof(long));
	return 0;
}

static int write_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	long v = *items;
	return write_integer(ext, key, &v);
}

// snd_mixer_poll_descriptors_revents looks at pfds[].revents only and never
// asks the plugin, so the error must come from the descriptor itself: put a
// descriptor with the wanted poll state under the same number, which keeps
// callers that cached the number (socket notifiers) watching it.
static void replace_fd(struct state *s, int fd)
{
	if (fd >= 0)
		dup3(fd, s->ext.poll_fd, O_CLOEXEC), close(fd);
}

// Runs one command line; returns 1 and fills id/mask when it makes an event.
// A typo would otherwise show up only as a test waiting for an event forever.
static int run_command(struct state *s, char *line, snd_ctl_elem_id_t *id, unsigned int *mask)
{
	int p[2], set = !strncmp(line, "set ", 4), info = !strncmp(line, "info ", 5);
	char *space = strrchr(line, ' ');
	long v = 0;
	snd_ctl_ext_key_t key = SND_CTL_EXT_KEY_NOT_FOUND;
	if (!strcmp(line, "pollerr") && pipe2(p, O_CLOEXEC | O_NONBLOCK) == 0) {
		close(p[0]); // a write end without readers polls POLLERR
		replace_fd(s, p[1]); // read_event's reads of it fail from now on
		return 0;
	}
	if (!strcmp(line, "dead")) {
		replace_fd(s, eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)); // readable until read
		return s->dead = 1, 0;
	}
	if (set && space) {
		v = strtol(space + 1, NULL, 10);
		*space = '\0';
	}
	if (set || info)
		key = lookup(s, line + (set ? 4 : 5));
	if (key == SND_CTL_EXT_KEY_NOT_FOUND || v < 0 || v > s->ctls[key].max) {
		SNDERR("testmix: cannot run \"%s\"", line);
		return 0;
	}
	if (set)
		s->ctls[key].value[0] = s->ctls[key].value[1] = v;
	*mask = set ? SND_CTL_EVENT_MASK_VALUE : SND_CTL_EVENT_MASK_INFO;
	elem_list(&s->ext, key, id);
	return 1;
}

static int read_event(snd_ctl_ext_t *ext, snd_ctl_elem_id_t *id, unsigned int *event_mask)
{
	// A line written at once is read whole: FIFO writes up to PIPE_BUF are atomic.
	char line[256];
	size_t len = 0;
	while (!S(ext)->dead) {
		if (read(ext->poll_fd, line + len, 1) != 1)
			return -EAGAIN;
		if (line[len] != '\n' && ++len < sizeof(line))
			continue;
		line[len < sizeof(line) ? len : len - 1] = '\0';
		len = 0;
		if (run_command(S(ext), line, id, event_mask))
			return 1;
	}
	return -EIO;
}

static void close_ctl(snd_ctl_ext_t *ext)
{
	close(ext->poll_fd);
	free(ext->private_data);
}

static const snd_ctl_ext_callback_t callbacks = {
	.close = close_ctl, .elem_count = elem_count, .elem_list = elem_list, .find_elem = find_elem,
	.get_attribute = get_attribute, .get_integer_info = get_integer_info,
	.get_enumerated_info = get_enumerated_info, .get_enumerated_name = get_enumerated_name,
	.read_integer = read_integer, .read_enumerated = read_enumerated, .write_integer = write_integer,
	.write_enumerated = write_enumerated, .read_event = read_event,
};

SND_CTL_PLUGIN_DEFINE_FUNC(testmix)
{
	snd_config_t *n;
	const char *fifo = NULL;
	long extra = 0;
	int err;
	(void)root;
	if (snd_config_search(conf, "fifo", &n) < 0 || snd_config_get_string(n, &fifo) < 0
	    || (snd_config_search(conf, "extra", &n) >= 0 && snd_config_get_integer(n, &extra) < 0) || extra < 0 || extra > 1000) {
		SNDERR("testmix: needs a fifo string and an extra count 0..1000");
		return -EINVAL;
	}
	if (mkfifo(fifo, 0600) < 0 && errno != EEXIST)
		return -errno;
	struct state *s = calloc(1, sizeof(*s) + (NBASE + extra) * sizeof(struct ctl));
	if (!s)
		return -ENOMEM;
	s->count = NBASE + extra;
	memcpy(s->ctls, base_ctls, sizeof(base_ctls));
	for (long k = 0; k < extra; k++) {
		s->ctls[NBASE + k] = (struct ctl)VOL("", 1, 100, 0, 50);
		snprintf(s->ctls[NBASE + k].name, sizeof(s->ctls[0].name), "Extra %03ld Playback Volume", k);
	}
	s->ext.poll_fd = open(fifo, O_RDWR | O_NONBLOCK | O_CLOEXEC);
	if (s->ext.poll_fd < 0) {
		err = -errno;
		free(s);
		return err;
	}
	s->ext.version = SND_CTL_EXT_VERSION;
	strcpy(s->ext.id, "testmix");
	strcpy(s->ext.name, "Test Mixer");
	s->ext.callback = &callbacks;
	s->ext.private_data = s;
	s->ext.tlv.c = read_tlv;
	err = snd_ctl_ext_create(&s->ext, name, mode);
	if (err < 0) {
		close_ctl(&s->ext);
		return err;
	}
	*handlep = s->ext.handle;
	return 0;
}

SND_CTL_PLUGIN_SYMBOL(testmix) // the macro brings its own semicolon
