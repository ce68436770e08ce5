// node build.mjs FOLDER: bundles src/ with the packages of FOLDER/node_modules and writes FOLDER/page_files.cpp, which holds the
// compressed files.
import { createHash } from 'node:crypto';
import { readFileSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { gzipSync } from 'node:zlib';

const MOST_BYTES = 150 * 1024; // of all files, compressed
const here = dirname(fileURLToPath(import.meta.url));
const out = resolve(process.argv[2]);
const esbuild = createRequire(join(out, 'package.json'))('esbuild');

const bundled = await esbuild.build({
  entryPoints: { app: join(here, 'src/main.js') },
  outdir: out,
  bundle: true,
  minify: true,
  format: 'esm',
  target: 'es2022',
  nodePaths: [join(out, 'node_modules')],
  legalComments: 'none',
  write: false,
});

const types = { html: 'text/html; charset=utf-8', js: 'text/javascript; charset=utf-8', css: 'text/css; charset=utf-8', svg: 'image/svg+xml' };
const files = [
  { path: '/', type: types.html, bytes: readFileSync(join(here, 'src/index.html')) },
  { path: '/icon.svg', type: types.svg, bytes: readFileSync(join(here, 'src/icon.svg')) },
  ...bundled.outputFiles.map(({ path, contents }) => ({
    path: path.slice(out.length), type: types[path.split('.').pop()], bytes: Buffer.from(contents),
  })),
].map(file => ({ ...file, bytes: gzipSync(file.bytes, { level: 9 }) }));

const total = files.reduce((sum, { bytes }) => sum + bytes.length, 0);
if (total > MOST_BYTES) throw new Error(`the page takes ${total} bytes, more than ${MOST_BYTES}`);

const tag = bytes => createHash('sha256').update(bytes).digest('hex').slice(0, 16);
writeFileSync(join(out, 'page_files.cpp'), `// Made by web/build.mjs: ${total} bytes.
#include "web/page.h"

namespace quorbit {

${files.map(({ bytes }, i) => `static constexpr unsigned char file_${i}[] = {${[...bytes]}};`).join('\n')}

std::span<const PageFile> page_files()
{
	static const PageFile files[] = {
${files.map(({ path, type, bytes }, i) => `\t\t{"${path}", "${type}", "\\"${tag(bytes)}\\"", true, file_${i}},`).join('\n')}
	};
	return files;
}

} // namespace quorbit
`);
