// drive.js PAGE PICTURE FOLDER [CERTIFICATE] - lets a browser open the page, prints the lines that its
// window.outcome resolves to, and takes a picture.
'use strict';
const { browse } = require('./webdriver.js');

const [page, picture, folder, certificate] = process.argv.slice(2);

browse(folder, certificate, async (browser) => {
  await browser.open(page);
  for (const line of await browser.value('window.outcome')) console.log(line);
  await browser.picture(picture);
});
