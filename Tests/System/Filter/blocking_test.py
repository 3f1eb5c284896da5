"""The filter's main job: real curl, real TLS, real kernel queue."""

from filterbench import FilterTestCase, main


class Blocking(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.web = self.start_server()
        self.directive.publish("blocked.example")
        self.start_filter()
        self.rules.arm()

    def test_refuses_a_blocked_name_and_those_below_it_and_nothing_else(self):
        for ipv6 in (False, True):
            for scheme in ("https", "http"):
                with self.subTest(scheme=scheme, ipv6=ipv6):
                    self.assert_refused(f"{scheme}://blocked.example/", ipv6=ipv6)
                    self.assert_refused(f"{scheme}://www.blocked.example/", ipv6=ipv6)
                    self.assert_passes(f"{scheme}://neighbour.example/", ipv6=ipv6)
        names = {line.split()[0] for line in self.web.requests()}
        self.assertEqual(names, {"neighbour.example"})


if __name__ == "__main__":
    main()
