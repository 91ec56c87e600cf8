/*
 * Test-only ALSA control plugin: a small mixer card with dB scales, an
 * enumeration, an inactive control and a duplicated name, whose "hardware"
 * is scripted by the test through a FIFO.
 *
 *   ctl_type.testmix { lib "/abs/path/libasound_module_ctl_testmix.so" }
 *   ctl.testmix { type testmix fifo "/abs/path/mixer.fifo" extra 0 }
 *
 * `extra N` adds N playback volumes "Extra 000" ... for load tests.
 *
 * The FIFO is also the poll descriptor, so writing a line wakes poll().
 * Lines are consumed when ALSA calls read_event (snd_mixer_handle_events),
 * one command per line; a name may end in ",N" to address index N:
 *
 *   set <ctl name> <value>   an external change: every channel takes <value>
 *                            (item number for enums), a VALUE event follows
 *   info <ctl name>          an INFO event only, the value stays
 *   fail <op> <errno>        from now on the ops fail with -errno;
 *                            op: read, write, all (also info and TLV), none
 *   pollerr                  the descriptor reports POLLERR from now on
 *   dead                     read_event fails with -EIO from now on and the
 *                            descriptor stays readable, like a lost backend
 *
 * Every snd_ctl_open gets its own state: a value written through one handle
 * is not seen by another one.
 */
#define _GNU_SOURCE /* pipe2, dup3 */
#include <alsa/asoundlib.h>
#include <alsa/control_external.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

enum { FAIL_READ = 1, FAIL_WRITE = 2, FAIL_INFO = 4 };

struct ctl {
	char name[44];
	int index;
	snd_ctl_elem_type_t type;
	int channels;
	long min, max;
	int db;
	int inactive;
	const char *const *items;
	long value[2];
};

static const char *const sources[] = { "Mic", "Line", "CD", "Internal", NULL };

#define VOL(n, i, ch, mx, db, v) { n, i, SND_CTL_ELEM_TYPE_INTEGER, ch, 0, mx, db, 0, NULL, { v, v } }
#define SW(n, ch) { n, 0, SND_CTL_ELEM_TYPE_BOOLEAN, ch, 0, 1, 0, 0, NULL, { 1, 1 } }

static const struct ctl base_ctls[] = {
	VOL("Master Playback Volume", 0, 2, 100, 1, 80),
	SW("Master Playback Switch", 2),
	VOL("Master Mono Playback Volume", 0, 1, 100, 1, 80),
	VOL("Headphone Playback Volume", 0, 2, 31, 0, 20),
	SW("Headphone Playback Switch", 2),
	VOL("PCM Playback Volume", 0, 2, 255, 0, 200),
	VOL("PCM Playback Volume", 1, 2, 255, 0, 100),
	VOL("Capture Volume", 0, 2, 100, 1, 60),
	SW("Capture Switch", 2),
	VOL("Mic Boost Volume", 0, 2, 3, 0, 1),
	VOL("Mic Capture Volume", 0, 1, 31, 0, 16),
	SW("Mic Capture Switch", 1),
	{ "Input Source", 0, SND_CTL_ELEM_TYPE_ENUMERATED, 1, 0, 3, 0, 0, sources, { 0, 0 } },
	{ "Inactive Volume", 0, SND_CTL_ELEM_TYPE_INTEGER, 1, 0, 100, 0, 1, NULL, { 50, 50 } },
	/* Names ALSA does not rank sort alphabetically, so "Aux Zoom" (a partial
	 * match for "zoom") is listed before the exact "Zoom". */
	VOL("Aux Zoom Playback Volume", 0, 1, 10, 0, 5),
	VOL("Zoom Playback Volume", 0, 1, 10, 0, 5),
};
#define NBASE (sizeof(base_ctls) / sizeof(base_ctls[0]))

/* -50.00 dB at 0, 0.50 dB per step: 0..100 spans -50..0 dB */
static const unsigned int db_tlv[] = { SND_CTL_TLVT_DB_SCALE, 2 * sizeof(unsigned int),
				    (unsigned int)-5000, 50 };

struct state {
	snd_ctl_ext_t ext;
	int fail_ops, fail_err;
	int pollerr, dead;
	char buf[4096];		/* FIFO text not yet run as commands */
	size_t len;
	int count;
	struct ctl ctls[];
};

#define STATE(ext) ((struct state *)(ext)->private_data)

static int failing(snd_ctl_ext_t *ext, int op)
{
	return (STATE(ext)->fail_ops & op) ? -STATE(ext)->fail_err : 0;
}

static int elem_count(snd_ctl_ext_t *ext)
{
	return STATE(ext)->count;
}

static void fill_id(struct state *s, unsigned int k, snd_ctl_elem_id_t *id)
{
	snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
	snd_ctl_elem_id_set_name(id, s->ctls[k].name);
	snd_ctl_elem_id_set_index(id, s->ctls[k].index);
	snd_ctl_elem_id_set_numid(id, k + 1);
}

static int elem_list(snd_ctl_ext_t *ext, unsigned int offset, snd_ctl_elem_id_t *id)
{
	if (offset >= (unsigned int)STATE(ext)->count)
		return -EINVAL;
	fill_id(STATE(ext), offset, id);
	return 0;
}

static snd_ctl_ext_key_t lookup(struct state *s, const char *name, unsigned int index)
{
	for (int k = 0; k < s->count; k++)
		if (!strcmp(s->ctls[k].name, name) && (unsigned int)s->ctls[k].index == index)
			return k;
	return SND_CTL_EXT_KEY_NOT_FOUND;
}

static snd_ctl_ext_key_t find_elem(snd_ctl_ext_t *ext, const snd_ctl_elem_id_t *id)
{
	unsigned int numid = snd_ctl_elem_id_get_numid(id);
	if (numid > 0 && numid <= (unsigned int)STATE(ext)->count)
		return numid - 1;
	return lookup(STATE(ext), snd_ctl_elem_id_get_name(id), snd_ctl_elem_id_get_index(id));
}

static int get_attribute(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int *type,
			 unsigned int *acc, unsigned int *count)
{
	const struct ctl *c = &STATE(ext)->ctls[key];
	*type = c->type;
	*count = c->channels;
	*acc = SND_CTL_EXT_ACCESS_READWRITE;
	if (c->db)
		*acc |= SND_CTL_EXT_ACCESS_TLV_READ | SND_CTL_EXT_ACCESS_TLV_CALLBACK;
	if (c->inactive)
		*acc |= SND_CTL_EXT_ACCESS_INACTIVE;
	return failing(ext, FAIL_INFO);
}

static int get_integer_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *imin,
			    long *imax, long *istep)
{
	*imin = STATE(ext)->ctls[key].min;
	*imax = STATE(ext)->ctls[key].max;
	*istep = 1;
	return failing(ext, FAIL_INFO);
}

static int get_enumerated_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	*items = STATE(ext)->ctls[key].max + 1;
	return failing(ext, FAIL_INFO);
}

static int get_enumerated_name(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int item,
			       char *name, size_t name_max_len)
{
	if (item > (unsigned int)STATE(ext)->ctls[key].max)
		return -EINVAL;
	snprintf(name, name_max_len, "%s", STATE(ext)->ctls[key].items[item]);
	return failing(ext, FAIL_INFO);
}

/* A callback rather than ext->tlv.p so that "fail all" reaches dB queries too. */
static int read_tlv(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int op_flag,
		    unsigned int numid, unsigned int *tlv, unsigned int tlv_size)
{
	(void)key, (void)numid;
	if (op_flag)
		return -ENXIO;
	if (tlv_size < sizeof(db_tlv))
		return -ENOMEM;
	memcpy(tlv, db_tlv, sizeof(db_tlv));
	return failing(ext, FAIL_INFO);
}

static int read_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value)
{
	const struct ctl *c = &STATE(ext)->ctls[key];
	memcpy(value, c->value, c->channels * sizeof(long));
	return failing(ext, FAIL_READ);
}

static int read_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	*items = STATE(ext)->ctls[key].value[0];
	return failing(ext, FAIL_READ);
}

static int write_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value)
{
	struct ctl *c = &STATE(ext)->ctls[key];
	int err = failing(ext, FAIL_WRITE);
	if (err)
		return err;
	for (int i = 0; i < c->channels; i++)
		if (value[i] < c->min || value[i] > c->max)
			return -EINVAL;
	memcpy(c->value, value, c->channels * sizeof(long));
	return 0;
}

static int write_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
	long v = *items;
	return write_integer(ext, key, &v);
}

static int poll_revents(snd_ctl_ext_t *ext, struct pollfd *pfds, unsigned int nfds,
			unsigned short *revents)
{
	*revents = STATE(ext)->pollerr ? POLLERR : (nfds ? pfds[0].revents : 0);
	return 0;
}

/*
 * snd_mixer_poll_descriptors_revents looks at pfds[].revents only and never
 * asks the plugin, so the error must come from the descriptor itself: put a
 * descriptor with the wanted poll state under the same number, which keeps
 * callers that cached the number (socket notifiers) watching it.
 */
static void replace_fd(struct state *s, int fd)
{
	if (fd >= 0) {
		dup3(fd, s->ext.poll_fd, O_CLOEXEC);
		close(fd);
	}
}

static void make_pollerr(struct state *s)
{
	int p[2];
	if (pipe2(p, O_CLOEXEC | O_NONBLOCK) == 0) {
		close(p[0]);	/* a write end without readers polls POLLERR */
		replace_fd(s, p[1]);
	}
	s->pollerr = 1;
}

/* Parses "<name>[,index] [value]"; returns the key or NOT_FOUND. */
static snd_ctl_ext_key_t parse_target(struct state *s, char *arg, long *value)
{
	char *end = arg + strlen(arg), *comma;
	unsigned int index = 0;
	if (value) {
		char *sp = strrchr(arg, ' ');
		if (!sp)
			return SND_CTL_EXT_KEY_NOT_FOUND;
		*value = strtol(sp + 1, NULL, 10);
		end = sp;
	}
	*end = '\0';
	comma = strrchr(arg, ',');
	if (comma) {
		*comma = '\0';
		index = strtoul(comma + 1, NULL, 10);
	}
	return lookup(s, arg, index);
}

/*
 * Runs one command line; returns 1 and fills id/mask when it makes an event.
 * A typo would otherwise show up only as a test waiting for an event forever.
 */
static int run_command(struct state *s, char *line, snd_ctl_elem_id_t *id, unsigned int *mask)
{
	snd_ctl_ext_key_t key;
	char op[8];
	int err = 0;
	long v;
	if (!strncmp(line, "set ", 4)) {
		key = parse_target(s, line + 4, &v);
		if (key == SND_CTL_EXT_KEY_NOT_FOUND || v < s->ctls[key].min || v > s->ctls[key].max)
			goto bad;
		s->ctls[key].value[0] = s->ctls[key].value[1] = v;
		*mask = SND_CTL_EVENT_MASK_VALUE;
	} else if (!strncmp(line, "info ", 5)) {
		key = parse_target(s, line + 5, NULL);
		if (key == SND_CTL_EXT_KEY_NOT_FOUND)
			goto bad;
		*mask = SND_CTL_EVENT_MASK_INFO;
	} else if (sscanf(line, "fail %7s %d", op, &err) >= 1) {
		s->fail_ops = !strcmp(op, "read") ? FAIL_READ
			    : !strcmp(op, "write") ? FAIL_WRITE
			    : !strcmp(op, "all") ? FAIL_READ | FAIL_WRITE | FAIL_INFO : 0;
		s->fail_err = err > 0 ? err : EIO;
		return 0;
	} else if (!strcmp(line, "pollerr")) {
		make_pollerr(s);
		return 0;
	} else if (!strcmp(line, "dead")) {
		replace_fd(s, eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)); /* readable until read */
		s->dead = 1;
		return 0;
	} else {
		goto bad;
	}
	fill_id(s, key, id);
	return 1;
bad:
	SNDERR("testmix: cannot run \"%s\"", line);
	return 0;
}

static int read_event(snd_ctl_ext_t *ext, snd_ctl_elem_id_t *id, unsigned int *event_mask)
{
	struct state *s = ext->private_data;
	for (;;) {
		char *nl;
		if (s->dead)
			return -EIO;
		nl = memchr(s->buf, '\n', s->len);
		if (!nl) {
			ssize_t n;
			if (s->pollerr)
				return -EAGAIN;
			if (s->len == sizeof(s->buf))
				s->len = 0;	/* an overlong line is garbage anyway */
			n = read(ext->poll_fd, s->buf + s->len, sizeof(s->buf) - s->len);
			if (n <= 0)
				return -EAGAIN;
			s->len += n;
			continue;
		}
		*nl = '\0';
		int event = run_command(s, s->buf, id, event_mask);
		s->len -= nl + 1 - s->buf;
		memmove(s->buf, nl + 1, s->len);
		if (event)
			return 1;
	}
}

static void close_ctl(snd_ctl_ext_t *ext)
{
	close(ext->poll_fd);
	free(ext->private_data);
}

static const snd_ctl_ext_callback_t callbacks = {
	.close = close_ctl,
	.elem_count = elem_count,
	.elem_list = elem_list,
	.find_elem = find_elem,
	.get_attribute = get_attribute,
	.get_integer_info = get_integer_info,
	.get_enumerated_info = get_enumerated_info,
	.get_enumerated_name = get_enumerated_name,
	.read_integer = read_integer,
	.read_enumerated = read_enumerated,
	.write_integer = write_integer,
	.write_enumerated = write_enumerated,
	.read_event = read_event,
	.poll_revents = poll_revents,
};

SND_CTL_PLUGIN_DEFINE_FUNC(testmix)
{
	snd_config_iterator_t i, next;
	const char *fifo = NULL;
	long extra = 0;
	struct state *s;
	int err;
	(void)root;

	snd_config_for_each(i, next, conf) {
		snd_config_t *n = snd_config_iterator_entry(i);
		const char *key;
		if (snd_config_get_id(n, &key) < 0 || !strcmp(key, "comment") ||
		    !strcmp(key, "type") || !strcmp(key, "hint"))
			continue;
		if (!strcmp(key, "fifo") && snd_config_get_string(n, &fifo) >= 0)
			continue;
		if (!strcmp(key, "extra") && snd_config_get_integer(n, &extra) >= 0 && extra >= 0 && extra <= 1000)
			continue;
		SNDERR("testmix: bad or unknown field %s", key);
		return -EINVAL;
	}
	if (!fifo) {
		SNDERR("testmix: no fifo given");
		return -EINVAL;
	}
	if (mkfifo(fifo, 0600) < 0 && errno != EEXIST)
		return -errno;

	s = calloc(1, sizeof(*s) + (NBASE + extra) * sizeof(struct ctl));
	if (!s)
		return -ENOMEM;
	s->count = NBASE + extra;
	memcpy(s->ctls, base_ctls, sizeof(base_ctls));
	for (long k = 0; k < extra; k++) {
		struct ctl *c = &s->ctls[NBASE + k];
		*c = (struct ctl)VOL("", 0, 1, 100, 0, 50);
		snprintf(c->name, sizeof(c->name), "Extra %03ld Playback Volume", k);
	}
	s->ext.poll_fd = open(fifo, O_RDWR | O_NONBLOCK | O_CLOEXEC);
	if (s->ext.poll_fd < 0) {
		err = -errno;
		free(s);
		return err;
	}
	s->ext.version = SND_CTL_EXT_VERSION;
	s->ext.card_idx = 0;
	strcpy(s->ext.id, "testmix");
	strcpy(s->ext.driver, "testmix");
	strcpy(s->ext.name, "Test Mixer");
	strcpy(s->ext.longname, "Scripted test mixer");
	strcpy(s->ext.mixername, "Test Mixer");
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

SND_CTL_PLUGIN_SYMBOL(testmix) /* the macro brings its own semicolon */
