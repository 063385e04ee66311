<?php
// A WebDAV server for the tests, run by PHP's built-in web server: the folder named by
// CV_DAV_ROOT at the server's root, Basic authentication against the "user:password"
// lines of the file named by CV_DAV_USERS, locks in a file in CV_DAV_STATE. The
// extended file-system nodes keep dead properties in a ".sabredav" file per folder.
require_once 'Sabre/autoload.php';

class PlainUsers extends Sabre\DAV\Auth\Backend\AbstractBasic {
    protected function validateUserPass($username, $password) {
        $lines = file(getenv('CV_DAV_USERS'), FILE_IGNORE_NEW_LINES | FILE_SKIP_EMPTY_LINES);
        foreach ($lines as $line) {
            [$user, $secret] = explode(':', $line, 2) + [1 => null];
            if ($user === $username && $secret !== null && hash_equals($secret, (string)$password))
                return true;
        }
        return false;
    }
}

$server = new Sabre\DAV\Server(new Sabre\DAV\FSExt\Directory(getenv('CV_DAV_ROOT')));
$server->setBaseUri('/');
$server->addPlugin(new Sabre\DAV\Auth\Plugin(new PlainUsers(), 'dav'));
$server->addPlugin(new Sabre\DAV\Locks\Plugin(
    new Sabre\DAV\Locks\Backend\File(getenv('CV_DAV_STATE') . '/locks')));
$server->exec();
